#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <set>
#include <stdexcept>
#include <string>

#include "Data Channel Internal/ZPIUARTChannel.h"
#include "Support/ErrorExpectations.h"
#include "Support/OpenDescriptors.h"
#include "Support/SystemCalls.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Speeds = std::pair<uint32_t, uint32_t>;

constexpr const char* kPolicyFile = "ZPIUARTLifetimePolicy.cpp";

ZPKURLPtr urlOf(const std::string& text) { return ZPKURL::initWithString(text); }

ZPKOptionsPtr optionOf(std::string_view key, ZPKOptions::Value value) {
  auto options = ZPKOptions::init();
  options->set(key, std::move(value));
  return options;
}

std::string numbered(int number) {
  return std::string(std::strerror(number)) + "(" + std::to_string(number) + ")";
}

class ZPIUARTChannelTest : public testing::Test {
 protected:
  std::shared_ptr<ZPIUARTChannel> channelWith(const ZPKOptionsPtr& options) {
    return ZPIUARTChannel::initForURL(urlOf(_peer.url()), options);
  }

  termios attributes() const { return terminalAttributes(_peer.nearEnd()); }
  Speeds speeds() const { return terminalSpeeds(_peer.nearEnd()); }

  TransportPeer _peer{TransportPeer::Kind::kTerminal};
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
};

// --- checkURL, defaultConfig, initForURL

TEST_F(ZPIUARTChannelTest, OnlyTheSchemeUartIsAcceptedAndNothingIsLogged) {
  for (const char* const url : {"uart:///dev/ttyS0", "uart:", "uart://host", "uart:x?baud=abc"}) {
    EXPECT_TRUE(ZPIUARTChannel::checkURL(urlOf(url))) << url;
  }
  for (const char* const url : {"UART:///dev/ttyS0", "Uart:///dev/ttyS0", "uarts:///dev/ttyS0",
                                "tcp://localhost:80", "/dev/ttyS0"}) {
    EXPECT_FALSE(ZPIUARTChannel::checkURL(urlOf(url))) << url;
  }
  EXPECT_FALSE(ZPIUARTChannel::checkURL(nullptr));
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPIUARTChannelTest, TheDefaultsAre115200And8N1AndExclusive) {
  const ZPKOptionsPtr options = ZPIUARTChannel::defaultConfig();
  EXPECT_EQ(options->size(), 3U);
  EXPECT_EQ(options->number(ZEPHAL_COMMUNICATION_UART_BAUD), ZPKNumber(115200));
  EXPECT_EQ(options->string(ZEPHAL_COMMUNICATION_UART_MODE), "8N1");
  EXPECT_EQ(options->number(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK), ZPKNumber(true));
}

TEST_F(ZPIUARTChannelTest, EachDefaultConfigIsNew) {
  ZPIUARTChannel::defaultConfig()->set(ZEPHAL_COMMUNICATION_UART_BAUD, 9600);
  EXPECT_EQ(ZPIUARTChannel::defaultConfig()->number(ZEPHAL_COMMUNICATION_UART_BAUD),
            ZPKNumber(115200));
}

TEST_F(ZPIUARTChannelTest, ANullURLGivesNoChannel) {
  EXPECT_EQ(ZPIUARTChannel::initForURL(nullptr, nullptr), nullptr);
}

TEST_F(ZPIUARTChannelTest, BeginsClosedAndMakesNoSystemCall) {
  const ZPKURLPtr url = urlOf(_peer.url());
  const SystemCalls calls;
  const auto channel = ZPIUARTChannel::initForURL(url, nullptr);
  EXPECT_FALSE(channel->isOpened());
  EXPECT_THAT(calls.all(), IsEmpty());
}

// --- Options

TEST_F(ZPIUARTChannelTest, WithoutOptionsTheDefaultsApply) {
  for (const ZPKOptionsPtr& options : {ZPKOptionsPtr(), ZPKOptions::init()}) {
    const auto channel = channelWith(options);
    SystemCalls calls;
    EXPECT_TRUE(_peer.open(channel));
    EXPECT_EQ(calls.count("ioctl TIOCEXCL"), 1U);
    EXPECT_EQ(speeds(), Speeds(115200, 115200));
    EXPECT_EQ(attributes().c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(attributes().c_cflag & (PARENB | CSTOPB), 0U);
    EXPECT_TRUE(channel->close(nullptr));
  }
}

TEST_F(ZPIUARTChannelTest, AGivenKeyReplacesItsDefaultAndTheOthersStay) {
  const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_BAUD, 9600));
  SystemCalls calls;
  EXPECT_TRUE(_peer.open(channel));
  EXPECT_EQ(speeds(), Speeds(9600, 9600));
  EXPECT_EQ(calls.count("ioctl TIOCEXCL"), 1U);
  channel->close(nullptr);
}

TEST_F(ZPIUARTChannelTest, TheExclusiveHoldCanBeOmitted) {
  const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, false));
  SystemCalls calls;
  EXPECT_TRUE(_peer.open(channel));
  EXPECT_EQ(calls.count("ioctl TIOCEXCL"), 0U);
  channel->close(nullptr);
}

TEST_F(ZPIUARTChannelTest, UnknownKeysAreIgnored) {
  const auto channel = channelWith(optionOf("baud", 9600));
  EXPECT_TRUE(_peer.open(channel));
  EXPECT_EQ(speeds(), Speeds(115200, 115200));
  channel->close(nullptr);
}

TEST_F(ZPIUARTChannelTest, TheChannelCopiesTheOptions) {
  const ZPKOptionsPtr options = optionOf(ZEPHAL_COMMUNICATION_UART_BAUD, 9600);
  const auto channel = channelWith(options);
  options->set(ZEPHAL_COMMUNICATION_UART_BAUD, 19200);
  EXPECT_TRUE(_peer.open(channel));
  EXPECT_EQ(speeds(), Speeds(9600, 9600));
  EXPECT_EQ(options->size(), 1U);
  channel->close(nullptr);
}

TEST_F(ZPIUARTChannelTest, TheQueryOfTheURLIsNotRead) {
  const auto channel =
      ZPIUARTChannel::initForURL(urlOf(_peer.url() + "?baud=9600&mode=9X9"), nullptr);
  EXPECT_TRUE(_peer.open(channel));
  EXPECT_EQ(speeds(), Speeds(115200, 115200));
  channel->close(nullptr);
}

// --- Opening and closing

TEST_F(ZPIUARTChannelTest, IgnoresTheTimeoutOfAnOpen) {
  const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, false));
  for (const double timeout : {-0.5, 0.0, -1.0, 1.0e300}) {
    EXPECT_TRUE(channel->openWithTimeout(timeout, &_error));
    EXPECT_TRUE(channel->close(&_error));
  }
  EXPECT_EQ(_error, olderError());
}

TEST_F(ZPIUARTChannelTest, ReopeningAppliesAllSettingsAgain) {
  const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_BAUD, 12345));
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(_peer.open(channel));
    EXPECT_EQ(speeds(), Speeds(12345, 12345));
    EXPECT_EQ(attributes().c_lflag, 0U);
    EXPECT_EQ(attributes().c_cc[VTIME], 1);
    EXPECT_TRUE(channel->close(&_error));
    termios spoilt = attributes();
    spoilt.c_lflag |= ICANON | ECHO;
    spoilt.c_cc[VTIME] = 9;
    ASSERT_EQ(::cfsetspeed(&spoilt, B300), 0);
    ASSERT_EQ(::tcsetattr(_peer.nearEnd(), TCSANOW, &spoilt), 0);
  }
  EXPECT_EQ(_error, olderError());
}

TEST_F(ZPIUARTChannelTest, CloseFlushesAndRestoresNothing) {
  const auto channel = channelWith(nullptr);
  ASSERT_TRUE(_peer.open(channel));
  const SystemCalls calls;
  EXPECT_TRUE(channel->close(&_error));
  EXPECT_THAT(calls.texts(), ElementsAre("close"));
  EXPECT_EQ(speeds(), Speeds(115200, 115200));
  EXPECT_EQ(attributes().c_lflag, 0U);
}

TEST_F(ZPIUARTChannelTest, AFailedOpenLeavesNothingOpenAndMayBeRepeated) {
  for (const char* const call :
       {"open", "ioctl TIOCEXCL", "fcntl", "tcgetattr", "tcsetattr", "ioctl TCSETS2"}) {
    const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_BAUD, 12345));
    const std::set<int> before = openDescriptors();
    LogCapture log;
    {
      SystemCalls calls;
      calls.fail(call, EIO);
      EXPECT_FALSE(_peer.open(channel)) << call;
      EXPECT_EQ(calls.count("close"), std::string(call) == "open" ? 0U : 1U);
    }
    EXPECT_FALSE(channel->isOpened());
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(_peer.open(channel)) << call;
    EXPECT_TRUE(channel->close(nullptr));
  }
}

TEST_F(ZPIUARTChannelTest, AFailedCleanUpIsOnlyLogged) {
  const auto channel = channelWith(nullptr);
  int left = -1;
  {
    SystemCalls calls;
    calls.fail("tcgetattr", EIO);
    calls.fail("close", EINTR);
    EXPECT_FALSE(channel->openWithTimeout(1.0, &_error));
    left = static_cast<int>(calls.all().front().result);
  }
  const std::string step = "Error getting tty attributes " + _peer.path() + " - " + numbered(EIO);
  expectError(_error,
              {"zephal-communication", 4, step, "openPortWithError__no_cleanup", kPolicyFile});
  EXPECT_THAT(_log.lines(),
              ElementsAre(LogLine{0, step}, LogLine{0, "Error closing port - " + numbered(EINTR)}));
  EXPECT_FALSE(channel->isOpened());
  ::close(left);
}

TEST_F(ZPIUARTChannelTest, ABadModeFailsAtOpenAndLeavesNothingOpen) {
  const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_MODE, "9N1"));
  const std::set<int> before = openDescriptors();
  EXPECT_FALSE(channel->openWithTimeout(1.0, &_error));
  expectFailure(_error, _log,
                {"zephal-communication", 3, "Invalid Character Size (Use 5, 6, 7, or 8)",
                 "setCharacterSizeSpecifier", kPolicyFile});
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ZPIUARTChannelTest, ATooShortModeThrowsAndLosesTheDescriptor) {
  const auto channel = channelWith(optionOf(ZEPHAL_COMMUNICATION_UART_MODE, ""));
  SystemCalls calls;
  EXPECT_THROW(channel->openWithTimeout(1.0, &_error), std::out_of_range);
  const int lost = static_cast<int>(calls.all().front().result);
  EXPECT_TRUE(isOpenDescriptor(lost));
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(_error, olderError());
  EXPECT_THAT(_log.lines(), IsEmpty());
  ::close(lost);
}

TEST_F(ZPIUARTChannelTest, AFailedOpenWithoutMemoryForItsErrorLeavesNothingOpen) {
  const auto channel = channelWith(nullptr);
  const std::set<int> before = openDescriptors();
  bool hasThrown = true;
  for (size_t failing = 0; hasThrown; ++failing) {
    SystemCalls calls;
    calls.fail("tcgetattr", EIO);
    calls.failAllocation(failing);
    try {
      EXPECT_FALSE(channel->openWithTimeout(1.0, &_error));
      hasThrown = false;
    } catch (const std::bad_alloc&) {
    }
    const CallsWatched unwatched(false);
    EXPECT_EQ(openDescriptors(), before) << "allocation " << failing;
    EXPECT_FALSE(channel->isOpened());
  }
}

TEST_F(ZPIUARTChannelTest, IsDestroyedWithoutAClose) {
  auto channel = channelWith(nullptr);
  int left = -1;
  {
    const SystemCalls calls;
    ASSERT_TRUE(_peer.open(channel));
    left = static_cast<int>(calls.all().back().descriptor);
    channel.reset();
    EXPECT_EQ(calls.count("close"), 0U);
  }
  EXPECT_TRUE(isOpenDescriptor(left));
  ::close(left);
}

// --- Reset

TEST_F(ZPIUARTChannelTest, ResettingAnOpenChannelFailsAndLeavesItOpen) {
  const auto channel = channelWith(nullptr);
  ASSERT_TRUE(_peer.open(channel));
  EXPECT_FALSE(channel->reset(&_error));
  expectFailure(_error, _log,
                {"zephal-communication", 1, "Reset not supported while channel is open",
                 "-[ZPIUARTChannel reset:]", "ZPIUARTChannel.cpp"});
  EXPECT_FALSE(channel->reset(nullptr));
  EXPECT_EQ(_log.count("Reset not supported while channel is open"), 2U);
  EXPECT_TRUE(channel->isOpened());
  channel->close(nullptr);
}

TEST_F(ZPIUARTChannelTest, ResettingAClosedChannelSucceedsAndDoesNothing) {
  const auto channel = channelWith(nullptr);
  const SystemCalls calls;
  EXPECT_TRUE(channel->reset(&_error));
  EXPECT_TRUE(channel->reset(nullptr));
  EXPECT_EQ(_error, olderError());
  EXPECT_THAT(calls.all(), IsEmpty());
}

// --- A line that goes away

TEST_F(ZPIUARTChannelTest, ALostDeviceFailsTheReadAndClosesTheChannel) {
  const auto channel = channelWith(nullptr);
  ASSERT_TRUE(_peer.open(channel));
  _peer.hangUp();
  EXPECT_EQ(channel->readWithTimeout(20.0, &_error), nullptr);
  expectFailure(_error, _log,
                {"zephal-communication", 5,
                 std::string("Read failed with error ") + std::strerror(0) + " (0)",
                 "zephal_communication_read", "DescriptorOperation.cpp"});
  EXPECT_FALSE(channel->isOpened());
}

TEST_F(ZPIUARTChannelTest, ALostDeviceFailsTheWriteAndClosesNothing) {
  const auto channel = channelWith(nullptr);
  ASSERT_TRUE(_peer.open(channel));
  _peer.hangUp();
  const ZPKDataPtr data = ZPKData::dataWithString("x");
  {
    const SystemCalls calls;
    EXPECT_FALSE(channel->write(data, &_error));
    // A terminal is not a socket, and is not tried as one.
    EXPECT_EQ(calls.count("send"), 0U);
    EXPECT_EQ(calls.count("write"), 1U);
  }
  expectFailure(
      _error, _log,
      {"zephal-communication", 5, std::string("Write failed with ") + std::strerror(EIO) + " (5)",
       "zephal_communication_write", "DescriptorOperation.cpp"});
  EXPECT_TRUE(channel->isOpened());
  EXPECT_TRUE(channel->close(nullptr));
}

}  // namespace
