// A connection that fails reports no error object. Straight after the open, errno says why, through
// every layer that a stack can have.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <string>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/CheckedCalls.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryFolder.h"

using namespace support;

namespace {

/// What stands in the way of a connection.
enum class Obstacle { kSilentTCPPort, kSilentUnixSocket, kMissingUnixSocket, kUnknownHost };

class RefusedConnectionTest : public testing::TestWithParam<Obstacle> {
 protected:
  void SetUp() override {
    switch (GetParam()) {
      case Obstacle::kSilentTCPPort: return occupyTCPPort();
      case Obstacle::kSilentUnixSocket: return occupyUnixSocket();
      case Obstacle::kMissingUnixSocket:
        url = "unix://" + folder.pathOf("nobody");
        reason = ENOENT;
        return;
      case Obstacle::kUnknownHost:
        url = "tcp://:4000";
        reason = EHOSTUNREACH;
        return;
    }
  }

  void TearDown() override { closeIfOpen(&_socket); }

  /// Opens, and checks errno straight after it.
  template <class Opening>
  void expectReason(Opening open) const {
    ZPKErrorPtr error = olderError();
    const ZPKErrorPtr older = error;
    errno = 0;
    const bool isOpen = open(&error);
    const int number = errno;
    EXPECT_FALSE(isOpen);
    EXPECT_EQ(number, reason);
    EXPECT_EQ(error, older);
  }

  std::string url;
  int reason = 0;
  TemporaryFolder folder;
  const std::string cutPath = folder.pathOf("cut.log");
  const std::string rawPath = folder.pathOf("raw.log");

 private:
  // A socket that is bound but does not listen refuses connections and keeps its address occupied.
  void occupyTCPPort() {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    _socket = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    checked(::bind(_socket, plain, length), "bind");
    checked(::getsockname(_socket, plain, &length), "getsockname");
    url = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    reason = ECONNREFUSED;
  }

  void occupyUnixSocket() {
    const std::string path = folder.pathOf("socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    _socket = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    checked(::bind(_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
    url = "unix://" + path;
    reason = ECONNREFUSED;
  }

  LogCapture _log;
  int _socket = -1;
};

std::string obstacleName(const testing::TestParamInfo<Obstacle>& tested) {
  switch (tested.param) {
    case Obstacle::kSilentTCPPort: return "SilentTCPPort";
    case Obstacle::kSilentUnixSocket: return "SilentUnixSocket";
    case Obstacle::kMissingUnixSocket: return "MissingUnixSocket";
    case Obstacle::kUnknownHost: return "UnknownHost";
  }
  return "";
}

INSTANTIATE_TEST_SUITE_P(, RefusedConnectionTest,
                         testing::Values(Obstacle::kSilentTCPPort, Obstacle::kSilentUnixSocket,
                                         Obstacle::kMissingUnixSocket, Obstacle::kUnknownHost),
                         obstacleName);

TEST_P(RefusedConnectionTest, ErrnoSaysWhyAChannelDoesNotOpen) {
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(url);
  expectReason([&](ZPKErrorPtr* error) { return channel->openWithTimeout(1, error); });
}

TEST_P(RefusedConnectionTest, ErrnoSaysWhyAFullStackDoesNotOpen) {
  const ZPKCommStackPtr stack = ZPKCommStack::init();
  stack->enableECIDSwapDetectionWithECID(1);
  stack->setReadFilters({"noise"});
  stack->setReadFiltersHex({"1B5B306D"});
  stack->setActiveChannelOnOff(true, nullptr);
  stack->setLogFilePath(cutPath, rawPath);
  ASSERT_TRUE(stack->createStackWithURL(url));
  expectReason([&](ZPKErrorPtr* error) { return stack->openWithTimeout(1, error); });
}

TEST_P(RefusedConnectionTest, ErrnoSaysWhyALoggerStackDoesNotOpen) {
  const ZPKCommLoggerStackPtr recorder = ZPKCommLoggerStack::init();
  recorder->setDelimiter("\n");
  recorder->setLogFilePath(cutPath, rawPath);
  ASSERT_TRUE(recorder->createStackWithURL(url));
  expectReason([&](ZPKErrorPtr* error) { return recorder->open(error); });
}

}  // namespace
