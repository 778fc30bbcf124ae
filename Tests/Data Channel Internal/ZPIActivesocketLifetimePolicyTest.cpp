#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Data Channel Internal/ZPIActivesocketLifetimePolicy.h"
#include "Support/ErrorExpectations.h"
#include "Support/HostNames.h"
#include "Support/SimulatedDevice.h"
#include "Support/StandardOutputCapture.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Kind = SimulatedDevice::Kind;

int32_t connectTo(const std::string& url) {
  return ZPIActivesocketLifetimePolicy::socket_from_url(ZPKURL::initWithString(url));
}

bool connectsToTCPHost(const std::string& host) {
  SimulatedDevice device(Kind::kTCP);
  const int32_t socket =
      connectTo("tcp://" + host + ":" + std::to_string(device.port()) + "/path?query=1");
  if (socket < 0) return false;
  return ::close(socket) == 0;
}

TEST(ZPIActivesocketLifetimePolicyTest, ConnectsToATCPURL) {
  EXPECT_TRUE(connectsToTCPHost("127.0.0.1"));
  EXPECT_TRUE(connectsToTCPHost("user@127.0.0.1"));
}

TEST(ZPIActivesocketLifetimePolicyTest, ConnectsToAHostByItsName) {
  if (!resolvesLocalhost()) GTEST_SKIP() << "no localhost: neither /etc/hosts nor DNS names it";
  EXPECT_TRUE(connectsToTCPHost("localhost"));
}

TEST(ZPIActivesocketLifetimePolicyTest, ConnectsToAUnixURL) {
  SimulatedDevice device(Kind::kUnix);
  const int32_t socket = connectTo(device.url() + "?baud=9600");
  EXPECT_GE(socket, 0);
  ::close(socket);
}

TEST(ZPIActivesocketLifetimePolicyTest, ThePathOfAUnixURLIsDecoded) {
  SystemCalls calls;
  EXPECT_EQ(connectTo("unix:///no%20such%20file"), -1);
  EXPECT_EQ(calls.count("connect AF_UNIX /no such file"), 1U);
}

TEST(ZPIActivesocketLifetimePolicyTest, OnlyTheLow16BitsOfAPortCount) {
  const std::pair<const char*, const char*> cases[] = {
      {"tcp://127.0.0.1:70000", "connect AF_INET 127.0.0.1:4464"},
      {"tcp://127.0.0.1:65535", "connect AF_INET 127.0.0.1:65535"},
      {"tcp://127.0.0.1:65536", "connect AF_INET 127.0.0.1:0"},
      {"tcp://127.0.0.1", "connect AF_INET 127.0.0.1:0"},
      {"tcp://127.0.0.1:", "connect AF_INET 127.0.0.1:0"}};
  for (const auto& [url, text] : cases) {
    SystemCalls calls;
    calls.fail("connect", ECONNREFUSED);
    EXPECT_EQ(connectTo(url), -1);
    EXPECT_THAT(calls.texts({"connect"}), ElementsAre(text)) << url;
  }
}

TEST(ZPIActivesocketLifetimePolicyTest, OtherSchemesAndANullURLGiveNoSocket) {
  SystemCalls calls;
  for (const char* const url : {"uart:///dev/null", "TCP://127.0.0.1:80", "Unix:///tmp/x",
                                "http://127.0.0.1:80", "/tmp/x", "127.0.0.1"}) {
    EXPECT_EQ(connectTo(url), -1) << url;
  }
  EXPECT_EQ(ZPIActivesocketLifetimePolicy::socket_from_url(nullptr), -1);
  EXPECT_EQ(calls.count("socket"), 0U);
}

TEST(ZPIActivesocketLifetimePolicyTest, AMissingHostFails) {
  SimulatedDevice device(Kind::kTCP);
  const std::string port = std::to_string(device.port());
  for (const char* const url : {"tcp:/path", "tcp:", "tcp://:0"}) EXPECT_EQ(connectTo(url), -1);
  EXPECT_EQ(connectTo("tcp://:" + port), -1);
  EXPECT_EQ(device.connections(), 0U);
}

TEST(ZPIActivesocketLifetimePolicyTest, AFailedAcquireHasNoErrorAndNoLine) {
  LogCapture log;
  std::string printed;
  ZPKErrorPtr error = olderError();
  int32_t descriptor = 77;
  {
    const StandardOutputCapture output;
    const ZPIActivesocketLifetimePolicy policy(ZPKURL::initWithString("unix:///no/such/socket"));
    EXPECT_FALSE(policy.acquire(&descriptor, &error));
    printed = output.text();
  }
  EXPECT_EQ(descriptor, -1);
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(printed, "");
}

TEST(ZPIActivesocketLifetimePolicyTest, CloseReportsItsFailureAsItsOwn) {
  const std::string text = std::string("Error closing port - ") + std::strerror(EBADF) + "(9)";
  LogCapture log;
  const ZPIActivesocketLifetimePolicy policy(nullptr);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(policy.close(-1, &error));
  expectFailure(error, log,
                {"zephal-communication", 4, text, "close", "ZPIActivesocketLifetimePolicy.cpp"});
  EXPECT_FALSE(policy.close(-1, nullptr));
  EXPECT_EQ(log.count(text), 2U);
}

}  // namespace
