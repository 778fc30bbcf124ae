#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>

#include "ZephalConsole/Internal/SocketConnection.h"

namespace {

using namespace zephal::internal;
using namespace std::chrono_literals;

// An address that swallows every packet is not to be had here; a full unix socket is in
// ConsoleTest.
class ASocketConnection : public testing::Test {
 protected:
  ASocketConnection() {
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }

  bool connect() {
    return connection.connect(reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }

  Interventions interventions;
  Stop stop{Deadline::after(20s), interventions};
  const Wakeup wakeup;
  SocketConnection connection{stop, wakeup};
  sockaddr_in address{};
};

TEST_F(ASocketConnection, ConnectsToAListener) {
  const Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  auto* place = reinterpret_cast<sockaddr*>(&address);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener.number(), place, length), 0);
  ASSERT_EQ(::listen(listener.number(), 1), 0);
  ASSERT_EQ(::getsockname(listener.number(), place, &length), 0);
  EXPECT_TRUE(connect());
  EXPECT_TRUE(connection.take().isValid());
}

TEST_F(ASocketConnection, SaysThatItWasRefused) {
  address.sin_port = htons(1);
  EXPECT_FALSE(connect());
  EXPECT_EQ(connection.error(), ECONNREFUSED);
}

TEST_F(ASocketConnection, SaysThatTheSystemHasNoSuchSockets) {
  address.sin_family = AF_MAX;
  EXPECT_FALSE(connect());
  EXPECT_EQ(connection.error(), EAFNOSUPPORT);
}

}  // namespace
