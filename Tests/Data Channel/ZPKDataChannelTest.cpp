#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "Data Channel Internal/ZPIEndpointSocket.h"
#include "Data Channel Internal/ZPIUARTChannel.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Support/ErrorExpectations.h"
#include "Support/SystemCalls.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Speeds = std::pair<uint32_t, uint32_t>;
using Transport = TransportPeer::Kind;

constexpr const char* kFile = "ZPKDataChannel.cpp";

ZPKURLPtr urlOf(const std::string& text) { return ZPKURL::initWithString(text); }

ExpectedFailure badArgument(const std::string& text, const std::string& function) {
  return {"zephal-communication", 3, text, function, kFile};
}

// --- createUARTChannel

TEST(CreateUARTChannelTest, CreatesAClosedUARTChannel) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const SystemCalls calls;
  const ZPKDataChannelPtr channel =
      createUARTChannel(urlOf("uart:///dev/ttyS0"), ZPKOptions::init(), &error);
  EXPECT_NE(std::dynamic_pointer_cast<ZPIUARTChannel>(channel), nullptr);
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(calls.all(), IsEmpty());
}

TEST(CreateUARTChannelTest, RefusesAnyOtherScheme) {
  for (const char* const text : {"tcp://localhost:80", "UART:///dev/ttyS0", "/dev/ttyS0"}) {
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(createUARTChannel(urlOf(text), nullptr, &error), nullptr);
    expectFailure(
        error, log,
        badArgument("Provided url " + std::string(text) + " not valid", "createUARTChannel"));
  }
}

TEST(CreateUARTChannelTest, RefusesANullURL) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(createUARTChannel(nullptr, nullptr, &error), nullptr);
  expectFailure(error, log, badArgument("Provided url (null) not valid", "createUARTChannel"));
  EXPECT_EQ(createUARTChannel(nullptr, nullptr), nullptr);
  EXPECT_EQ(log.count("Provided url (null) not valid"), 2U);
}

TEST(CreateUARTChannelTest, UsesTheOptionsAndNotTheQuery) {
  TransportPeer peer(Transport::kTerminal);
  auto options = ZPKOptions::init();
  options->set(ZEPHAL_COMMUNICATION_UART_BAUD, 19200);
  for (const bool hasOptions : {true, false}) {
    const ZPKDataChannelPtr channel = createUARTChannel(urlOf(peer.url() + "?baud=9600&mode=9X9"),
                                                        hasOptions ? options : nullptr);
    ASSERT_TRUE(peer.open(channel));
    const uint32_t speed = hasOptions ? 19200 : 115200;
    EXPECT_EQ(terminalSpeeds(peer.nearEnd()), Speeds(speed, speed));
    channel->close();
  }
}

// --- createActiveTCPChannel

TEST(CreateActiveTCPChannelTest, CreatesAClosedChannelForTCPAndUnix) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const SystemCalls calls;
  for (const char* const text : {"tcp://localhost:80", "unix:///tmp/socket"}) {
    const ZPKDataChannelPtr channel = createActiveTCPChannel(urlOf(text), &error);
    EXPECT_NE(std::dynamic_pointer_cast<ZPIEndpointSocket>(channel), nullptr);
    EXPECT_FALSE(channel->isOpened());
  }
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(calls.all(), IsEmpty());
}

TEST(CreateActiveTCPChannelTest, LogsAURLThatCannotConnectButCreatesAChannel) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const ZPKDataChannelPtr channel = createActiveTCPChannel(urlOf("http://:70000"), &error);
  ASSERT_NE(channel, nullptr);
  EXPECT_THAT(log.texts(), ElementsAre("Unsupported scheme 'http' for URL http://:70000"));
  EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, olderError());
}

TEST(CreateActiveTCPChannelTest, RefusesANullURL) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(createActiveTCPChannel(nullptr, &error), nullptr);
  expectFailure(error, log, badArgument("Provided url (null) not valid", "createActiveTCPChannel"));
  EXPECT_EQ(createActiveTCPChannel(nullptr), nullptr);
  EXPECT_EQ(log.count("Provided url (null) not valid"), 2U);
}

// --- createActiveTCPChannelWithSocket

TEST(CreateActiveTCPChannelWithSocketTest, AValidSocketIsOpenAtOnce) {
  LogCapture log;
  TransportPeer peer(Transport::kAdopted);
  ZPKErrorPtr error = olderError();
  const ZPKDataChannelPtr channel = createActiveTCPChannelWithSocket(peer.nearEnd(), &error);
  ASSERT_NE(channel, nullptr);
  EXPECT_TRUE(channel->isOpened());
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("hello")));
  EXPECT_EQ(peer.receive(5), "hello");
  EXPECT_TRUE(channel->close());
}

TEST(CreateActiveTCPChannelWithSocketTest, RefusesMinusOne) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(createActiveTCPChannelWithSocket(-1, &error), nullptr);
  expectFailure(error, log,
                badArgument("Provided socket is not valid", "createActiveTCPChannelWithSocket"));
  EXPECT_EQ(createActiveTCPChannelWithSocket(-1), nullptr);
  EXPECT_EQ(log.count("Provided socket is not valid"), 2U);
}

TEST(CreateActiveTCPChannelWithSocketTest, AnyOtherNegativeValueGivesAClosedChannel) {
  LogCapture log;
  for (const int32_t socket : {-2, -2147483647}) {
    const ZPKDataChannelPtr channel = createActiveTCPChannelWithSocket(socket);
    ASSERT_NE(channel, nullptr);
    EXPECT_FALSE(channel->isOpened());
    EXPECT_FALSE(channel->openWithTimeout(1.0));
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

// --- createBaseChannelWithTransport

TEST(CreateBaseChannelWithTransportTest, ChoosesByTheScheme) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const auto uart = createBaseChannelWithTransport("uart:///dev/ttyS0?baud=9600", &error);
  EXPECT_NE(std::dynamic_pointer_cast<ZPIUARTChannel>(uart), nullptr);
  for (const char* const text : {"tcp://localhost:80?baud=9600", "unix:///tmp/socket?mode=9X9"}) {
    const auto socket = createBaseChannelWithTransport(text, &error);
    EXPECT_NE(std::dynamic_pointer_cast<ZPIEndpointSocket>(socket), nullptr);
    EXPECT_FALSE(socket->isOpened());
  }
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(CreateBaseChannelWithTransportTest, RefusesAnyOtherSchemeAndNone) {
  const std::optional<std::string_view> texts[] = {std::nullopt,          "",
                                                   "http://localhost:80", "UART:///dev/ttyS0",
                                                   "Tcp://localhost:80",  "UNIX:///tmp/x",
                                                   "/dev/ttyS0",          "localhost:80",
                                                   "not a url",           "uart:///dev/bad%zz"};
  for (const std::optional<std::string_view>& text : texts) {
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(createBaseChannelWithTransport(text, &error), nullptr);
    expectFailure(error, log, badArgument("Invalid URL scheme", "createBaseChannelWithTransport"));
    EXPECT_EQ(createBaseChannelWithTransport(text), nullptr);
    EXPECT_EQ(log.count("Invalid URL scheme"), 2U);
  }
}

TEST(CreateBaseChannelWithTransportTest, ASocketURLIsCheckedAndLogged) {
  LogCapture log;
  EXPECT_NE(createBaseChannelWithTransport("tcp://:70000"), nullptr);
  EXPECT_THAT(log.texts(), ElementsAre("Invalid TCP port specification", "Invalid TCP host"));
}

// The effect of a query on the port.
class UARTQueryTest : public testing::Test {
 protected:
  // The attributes and the baud rate with which a channel with that query opens.
  struct Opened {
    uint32_t speed;
    termios attributes;
  };

  Opened openWith(const std::string& query) {
    TransportPeer peer(Transport::kTerminal);
    const ZPKDataChannelPtr channel = createBaseChannelWithTransport(peer.url() + query);
    SystemCalls calls;
    EXPECT_TRUE(peer.open(channel)) << query;
    EXPECT_EQ(calls.count("ioctl TIOCEXCL"), 1U) << query;
    termios attributes{};
    for (const SystemCall& call : calls.all()) {
      if (call.name == "tcsetattr") {
        std::memcpy(&attributes, call.bytes.data(), sizeof attributes);
      }
    }
    const uint32_t speed = terminalSpeeds(peer.nearEnd()).second;
    channel->close();
    return {speed, attributes};
  }

  static tcflag_t modeOf(const Opened& opened) {
    return opened.attributes.c_cflag & static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB);
  }
};

TEST_F(UARTQueryTest, BaudIsReadAsADecimalIntegerFromItsStart) {
  const std::pair<const char*, uint32_t> cases[] = {{"?baud=9600", 9600},
                                                    {"?baud=9600x", 9600},
                                                    {"?baud=%20%099600", 9600},
                                                    {"?baud=+9600", 9600},
                                                    {"?baud=%2B9600", 9600},
                                                    {"?baud=009600", 9600},
                                                    {"?baud=abc", 0},
                                                    {"?baud=", 0},
                                                    {"?baud", 0},
                                                    {"?baud=1000000", 1000000},
                                                    {"?baud=9600.7", 9600},
                                                    {"?baud=0x10", 0},
                                                    {"", 115200},
                                                    {"?", 115200}};
  for (const auto& [query, speed] : cases) EXPECT_EQ(openWith(query).speed, speed) << query;
}

TEST_F(UARTQueryTest, ANegativeOrTooLargeBaudFailsAtOpen) {
  for (const char* const query :
       {"?baud=-9600", "?baud=99999999999999999999", "?baud=4294967296"}) {
    TransportPeer peer(Transport::kTerminal);
    const ZPKDataChannelPtr channel = createBaseChannelWithTransport(peer.url() + query);
    ASSERT_NE(channel, nullptr);
    LogCapture log;
    ZPKErrorPtr error;
    EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
    expectFailure(error, log,
                  {"zephal-communication", 4, "Error 22 calling ioctl( ..., ZSSIOSPEED, ... )",
                   "openPortWithError__no_cleanup", "ZPIUARTLifetimePolicy.cpp"});
  }
}

TEST_F(UARTQueryTest, BaudAndModeTogether) {
  const Opened opened = openWith("?baud=9600&mode=7E1");
  EXPECT_EQ(opened.speed, 9600U);
  EXPECT_EQ(modeOf(opened), static_cast<tcflag_t>(CS7 | PARENB));
}

TEST_F(UARTQueryTest, NamesAreComparedExactlyAndOtherItemsSilentlyIgnored) {
  LogCapture log;
  const Opened opened = openWith("?Baud=9600&BAUD=9600&Mode=7E2&baud%20=300&speed=1&lock=0&=9600");
  EXPECT_EQ(opened.speed, 115200U);
  EXPECT_EQ(modeOf(opened), static_cast<tcflag_t>(CS8));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(UARTQueryTest, TheLastOfARepeatedItemCounts) {
  const Opened opened = openWith("?baud=300&mode=9X9&baud=9600&mode=8N2");
  EXPECT_EQ(opened.speed, 9600U);
  EXPECT_EQ(modeOf(opened), static_cast<tcflag_t>(CS8 | CSTOPB));
  EXPECT_EQ(openWith("?baud=9600&baud=").speed, 0U);
  EXPECT_EQ(openWith("?baud=9600&baud").speed, 0U);
}

TEST_F(UARTQueryTest, AModeWithoutAValueMeansTheDefault) {
  EXPECT_EQ(modeOf(openWith("?mode")), static_cast<tcflag_t>(CS8));
  EXPECT_EQ(modeOf(openWith("?mode=8N2&mode")), static_cast<tcflag_t>(CS8));
  EXPECT_EQ(modeOf(openWith("?mode&mode=8N2")), static_cast<tcflag_t>(CS8 | CSTOPB));
}

TEST_F(UARTQueryTest, AModeIsTakenUnchanged) {
  EXPECT_EQ(modeOf(openWith("?mode=8N2=x")), static_cast<tcflag_t>(CS8 | CSTOPB));
  EXPECT_EQ(modeOf(openWith("?mode=%38N2")), static_cast<tcflag_t>(CS8 | CSTOPB));
}

TEST_F(UARTQueryTest, AnEmptyModeReplacesTheDefaultAndThrowsAtOpen) {
  TransportPeer peer(Transport::kTerminal);
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(peer.url() + "?mode=");
  ASSERT_NE(channel, nullptr);
  SystemCalls calls;
  EXPECT_THROW(channel->openWithTimeout(1.0), std::out_of_range);
  EXPECT_FALSE(channel->isOpened());
  ::close(static_cast<int>(calls.all().front().result));
}

}  // namespace
