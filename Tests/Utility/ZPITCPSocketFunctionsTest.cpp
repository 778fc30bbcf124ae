// The behaviour that is particular to the library's own sockets. ZPKSocketFunctionsTest tests what
// they share with a user's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Support/OpenDescriptors.h"
#include "Support/SystemCalls.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPITCPSocketFunctions.h"
#include "Utility/ZPKURL.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZPITCPSocketFunctionsTest : public testing::Test {
 protected:
  const TransportPeer _peer{TransportPeer::Kind::kTCP};
  const int _port = static_cast<int>(ZPKURL::initWithString(_peer.url())->port().value_or(0));
};

TEST_F(ZPITCPSocketFunctionsTest, TheLibrarysOwnListenersUseTheSameCalls) {
  const SystemCalls calls;
  const int listener = ZPIPassiveTCP(0, true, ZPISocketOwner::kLibrary);
  EXPECT_THAT(calls.texts(),
              ElementsAre("socket AF_INET SOCK_CLOEXEC", "setsockopt SOL_SOCKET SO_REUSEADDR 1",
                          "setsockopt SOL_SOCKET SO_REUSEPORT 1", "bind AF_UNSPEC 0.0.0.0:0",
                          "listen 5", "setsockopt IPPROTO_TCP TCP_NODELAY 1"));
  EXPECT_THAT(inheritedOf({listener}), IsEmpty());
  ::close(listener);
}

TEST_F(ZPITCPSocketFunctionsTest, TheLibrarysOwnConnectionsUseTheSameCalls) {
  int published = -1;
  const SystemCalls calls;
  const int client = ZPIActiveTCP("127.0.0.1", _port, &published, ZPISocketOwner::kLibrary);
  EXPECT_THAT(calls.texts(), ElementsAre("socket AF_INET SOCK_CLOEXEC",
                                         "connect AF_INET 127.0.0.1:" + std::to_string(_port),
                                         "setsockopt SOL_SOCKET SO_KEEPALIVE 1",
                                         "setsockopt IPPROTO_TCP TCP_NODELAY 1"));
  ASSERT_GE(client, 0);
  EXPECT_EQ(published, client);
  EXPECT_THAT(inheritedOf({client}), IsEmpty());
  ::close(client);
}

}  // namespace
