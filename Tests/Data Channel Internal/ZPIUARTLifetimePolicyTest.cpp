#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <termios.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>

#include "Data Channel Internal/ZPIUARTLifetimePolicy.h"
#include "Support/ErrorExpectations.h"
#include "Support/SerialPortFixture.h"
#include "Support/SystemCalls.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPKConstants.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Speeds = std::pair<uint32_t, uint32_t>;

class ZPIUARTLifetimePolicyTest : public SerialPortFixture {
 protected:
  // The attributes passed to tcsetattr: a pseudo-terminal does not keep all of them.
  static termios attributesSet(const SystemCalls& calls) {
    termios attributes{};
    for (const SystemCall& call : calls.all()) {
      if (call.name == "tcsetattr") {
        EXPECT_EQ(call.bytes.size(), sizeof attributes);
        std::memcpy(&attributes, call.bytes.data(), sizeof attributes);
      }
    }
    return attributes;
  }
};

// --- The order of the calls

TEST_F(ZPIUARTLifetimePolicyTest, OpensInTheFixedOrder) {
  SystemCalls calls;
  EXPECT_TRUE(open(115200, "8N1"));
  EXPECT_THAT(calls.texts(),
              ElementsAre("open " + _peer.path() + " O_RDWR|O_NOCTTY|O_NONBLOCK|O_CLOEXEC",
                          "ioctl TIOCEXCL", "fcntl F_SETFL 0", "tcgetattr", "cfsetspeed 115200",
                          "tcsetattr TCSANOW"));
  EXPECT_EQ(calls.all()[1].descriptor, _port.descriptor);
  EXPECT_EQ(_error, olderError());
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPIUARTLifetimePolicyTest, ARateOutsideTheListIsSetLastWithoutCfsetspeed) {
  SystemCalls calls;
  EXPECT_TRUE(open(1000000, "8N1"));
  EXPECT_THAT(calls.texts(),
              ElementsAre("open " + _peer.path() + " O_RDWR|O_NOCTTY|O_NONBLOCK|O_CLOEXEC",
                          "ioctl TIOCEXCL", "fcntl F_SETFL 0", "tcgetattr", "tcsetattr TCSANOW",
                          "ioctl TCGETS2", "ioctl TCSETS2", "ioctl TCGETS2"));
}

TEST_F(ZPIUARTLifetimePolicyTest, WithoutTheExclusiveOptionHoldsAreLeftAlone) {
  SystemCalls calls;
  EXPECT_TRUE(open(115200, "8N1", false));
  EXPECT_THAT(calls.texts({"open", "ioctl", "fcntl"}),
              ElementsAre("open " + _peer.path() + " O_RDWR|O_NOCTTY|O_NONBLOCK|O_CLOEXEC",
                          "fcntl F_SETFL 0"));
}

TEST_F(ZPIUARTLifetimePolicyTest, TheExclusiveOptionMayBeText) {
  const std::pair<const char*, bool> cases[] = {
      {"true", true}, {"TRUE", true},   {"True", true}, {"yes", true}, {"YES", true},
      {"1", true},    {"2", true},      {"0", false},   {"no", false}, {"false", false},
      {"", false},    {"truer", false}, {"y", false},   {"on", false}};
  for (const auto& [text, isExclusive] : cases) {
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    const ZPKOptionsPtr options = optionsOf(9600, "8N1");
    options->set(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, text);
    Port port;
    const SystemCalls calls;
    EXPECT_TRUE(port.open(peer.url(), options));
    EXPECT_EQ(calls.count("ioctl TIOCEXCL"), isExclusive ? 1U : 0U) << text;
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, TheDescriptorBlocksAndDoesNotSurviveAnExec) {
  EXPECT_TRUE(open(115200, "8N1"));
  EXPECT_EQ(::fcntl(_port.descriptor, F_GETFL) & (O_NONBLOCK | O_APPEND), 0);
  EXPECT_EQ(::fcntl(_port.descriptor, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(::fcntl(_port.descriptor, F_GETFD), FD_CLOEXEC);
}

// --- Speeds

TEST_F(ZPIUARTLifetimePolicyTest, RatesWithAConstantUseOnlyCfsetspeed) {
  for (const int rate : {50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800, 2400, 4800, 9600, 19200,
                         38400, 57600, 115200, 230400}) {
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    Port port;
    SystemCalls calls;
    EXPECT_TRUE(port.open(peer.url(), optionsOf(rate, "8N1")));
    EXPECT_EQ(calls.count("cfsetspeed " + std::to_string(rate)), 1U);
    EXPECT_EQ(calls.count("ioctl TCSETS2"), 0U) << rate;
    const auto speed = static_cast<uint32_t>(rate);
    EXPECT_EQ(terminalSpeeds(port.descriptor), Speeds(speed, speed));
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, RatesOfTheListWithoutAConstantAreSetExactly) {
  for (const int rate : {7200, 14400, 28800, 76800}) {
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    Port port;
    SystemCalls calls;
    EXPECT_TRUE(port.open(peer.url(), optionsOf(rate, "8N1")));
    EXPECT_EQ(calls.count("ioctl TCSETS2"), 1U) << rate;
    const auto speed = static_cast<uint32_t>(rate);
    EXPECT_EQ(terminalSpeeds(port.descriptor), Speeds(speed, speed));
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, ASeparateInputSpeedIsReplacedToo) {
  for (const uint32_t input : {4000001U, 1200U}) {
    for (const uint32_t rate : {115200U, 9600U, 1000000U}) {
      TransportPeer peer(TransportPeer::Kind::kTerminal);
      setTerminalSpeeds(peer.nearEnd(), input, 115200);
      ASSERT_EQ(terminalSpeeds(peer.nearEnd()), Speeds(input, 115200));
      Port port;
      EXPECT_TRUE(port.open(peer.url(), optionsOf(rate, "8N1")));
      EXPECT_EQ(terminalSpeeds(port.descriptor), Speeds(rate, rate));
    }
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, ARateThatTheDriverChangesIsRejected) {
  SystemCalls calls;
  calls.before(
      "ioctl TCGETS2", [&] { setTerminalSpeeds(_peer.nearEnd(), 115200, 115200); }, 1);
  EXPECT_FALSE(open(3000000, "8N1"));
  expectFailure(
      _error, _log,
      {"zephal-communication", 4, "Error 22 calling ioctl( ..., ZSSIOSPEED, ... )", kOpen, kFile});
}

TEST_F(ZPIUARTLifetimePolicyTest, RatesOutsideTheListAreSetExactly) {
  for (const int64_t rate :
       {int64_t{1000000}, int64_t{12345}, int64_t{460800}, int64_t{0}, int64_t{4294967295}}) {
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    Port port;
    SystemCalls calls;
    EXPECT_TRUE(port.open(peer.url(), optionsOf(rate, "8N1")));
    EXPECT_EQ(calls.count("cfsetspeed"), 0U);
    EXPECT_EQ(calls.count("ioctl TCSETS2"), 1U) << rate;
    const auto speed = static_cast<uint32_t>(rate);
    EXPECT_EQ(terminalSpeeds(port.descriptor), Speeds(speed, speed));
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, ARateOutsideTheListLeavesTheSpeedFieldsAlone) {
  termios before = terminalAttributes(_peer.nearEnd());
  ASSERT_EQ(::cfsetspeed(&before, B4800), 0);
  ASSERT_EQ(::tcsetattr(_peer.nearEnd(), TCSANOW, &before), 0);
  SystemCalls calls;
  EXPECT_TRUE(open(1000000, "8N1"));
  const termios attributes = attributesSet(calls);
  EXPECT_EQ(::cfgetospeed(&attributes), static_cast<speed_t>(B4800));
  EXPECT_EQ(::cfgetispeed(&attributes), static_cast<speed_t>(B4800));
}

TEST_F(ZPIUARTLifetimePolicyTest, AnExactSpeedKeepsTheModeAndTheControlCharacters) {
  EXPECT_TRUE(open(12345, "8N2"));
  const termios attributes = terminalAttributes(_port.descriptor);
  EXPECT_NE(attributes.c_cflag & CSTOPB, 0U);
  EXPECT_EQ(attributes.c_lflag, 0U);
  EXPECT_EQ(attributes.c_cc[VMIN], 1);
  EXPECT_EQ(attributes.c_cc[VTIME], 1);
}

TEST_F(ZPIUARTLifetimePolicyTest, ARateThatTheSystemRefusesIsNamed) {
  for (const int64_t rate :
       {int64_t{-1}, int64_t{-9600}, int64_t{4294967296}, std::numeric_limits<int64_t>::max(),
        std::numeric_limits<int64_t>::min()}) {
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    Port port;
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(port.open(peer.url(), optionsOf(rate, "8N1"), &error));
    expectFailure(error, log,
                  {"zephal-communication", 4, "Error 22 calling ioctl( ..., ZSSIOSPEED, ... )",
                   kOpen, kFile});
    EXPECT_GE(port.descriptor, 0);
  }
}

// --- Attributes

TEST_F(ZPIUARTLifetimePolicyTest, SwitchesAllProcessingOff) {
  termios before = terminalAttributes(_peer.nearEnd());
  before.c_iflag |= IXON | IXOFF | ICRNL | IGNPAR | IMAXBEL;
  before.c_oflag |= OPOST | ONLCR | OCRNL;
  before.c_lflag |= ICANON | ECHO | ISIG | IEXTEN | TOSTOP | NOFLSH;
  ASSERT_EQ(::tcsetattr(_peer.nearEnd(), TCSANOW, &before), 0);
  EXPECT_TRUE(open(115200, "8N1"));
  const termios after = terminalAttributes(_port.descriptor);
  EXPECT_EQ(after.c_iflag, 0U);
  EXPECT_EQ(after.c_oflag, 0U);
  EXPECT_EQ(after.c_lflag, 0U);
  EXPECT_NE(after.c_cflag & CREAD, 0U);
  EXPECT_NE(after.c_cflag & CLOCAL, 0U);
}

TEST_F(ZPIUARTLifetimePolicyTest, SetsEveryControlCharacterOfItsListAndNoOther) {
  termios before = terminalAttributes(_peer.nearEnd());
  for (cc_t& character : before.c_cc) character = 0x41;
  ASSERT_EQ(::tcsetattr(_peer.nearEnd(), TCSANOW, &before), 0);
  before = terminalAttributes(_peer.nearEnd());
  EXPECT_TRUE(open(115200, "8N1"));
  termios expected = before;
  for (const int character : {VEOF, VEOL, VEOL2, VERASE, VWERASE, VKILL, VREPRINT, VINTR, VQUIT,
                              VSUSP, VSTART, VSTOP, VLNEXT, VDISCARD}) {
    expected.c_cc[character] = 0;
  }
  expected.c_cc[VMIN] = 1;
  expected.c_cc[VTIME] = 1;
  const termios after = terminalAttributes(_port.descriptor);
  for (size_t index = 0; index < NCCS; ++index) {
    EXPECT_EQ(after.c_cc[index], expected.c_cc[index]) << index;
  }
  EXPECT_EQ(after.c_cc[VSWTC], 0x41);
}

TEST_F(ZPIUARTLifetimePolicyTest, LeavesFlowControlHangUpAndFixedParityAlone) {
  for (const bool isOn : {true, false}) {
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    termios before = terminalAttributes(peer.nearEnd());
    const auto flags = static_cast<tcflag_t>(HUPCL | CRTSCTS | CMSPAR);
    before.c_cflag = isOn ? before.c_cflag | flags : before.c_cflag & ~flags;
    ASSERT_EQ(::tcsetattr(peer.nearEnd(), TCSANOW, &before), 0);
    Port port;
    EXPECT_TRUE(port.open(peer.url(), optionsOf(115200, "8N1")));
    EXPECT_EQ(terminalAttributes(port.descriptor).c_cflag & flags, isOn ? flags : 0U);
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, Mode7E2SetsSizeParityAndStopBits) {
  SystemCalls calls;
  EXPECT_TRUE(open(9600, "7E2"));
  const termios attributes = attributesSet(calls);
  EXPECT_EQ(attributes.c_cflag & CSIZE, static_cast<tcflag_t>(CS7));
  EXPECT_NE(attributes.c_cflag & PARENB, 0U);
  EXPECT_EQ(attributes.c_cflag & PARODD, 0U);
  EXPECT_NE(attributes.c_cflag & CSTOPB, 0U);
}

TEST_F(ZPIUARTLifetimePolicyTest, Mode8N1SetsSizeParityAndStopBits) {
  SystemCalls calls;
  EXPECT_TRUE(open(9600, "8N1"));
  const termios attributes = attributesSet(calls);
  EXPECT_EQ(attributes.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
  EXPECT_EQ(attributes.c_cflag & (PARENB | CSTOPB), 0U);
}

TEST_F(ZPIUARTLifetimePolicyTest, AFourthCharacterOfTheModeIsNeverRead) {
  EXPECT_TRUE(open(9600, "8N1x"));
  EXPECT_EQ(_error, olderError());
}

// --- The URL

TEST_F(ZPIUARTLifetimePolicyTest, TheHostAndTheQueryOfTheURLAreIgnored) {
  SystemCalls calls;
  EXPECT_TRUE(_port.open("uart://some.host:80" + _peer.path() + "?baud=9600&mode=7E2",
                         optionsOf(115200, "8N1")));
  EXPECT_EQ(calls.count("cfsetspeed 115200"), 1U);
}

TEST_F(ZPIUARTLifetimePolicyTest, ThePathIsDecoded) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink(_peer.path(), folder.pathOf("a port"));
  EXPECT_TRUE(_port.open("uart://" + folder.path() + "/a%20port", optionsOf(115200, "8N1")));
}

// --- The policy's own operations

TEST_F(ZPIUARTLifetimePolicyTest, AcquiresWithItsOwnURLAndOptions) {
  const ZPIUARTLifetimePolicy policy(ZPKURL::initWithString(_peer.url()), optionsOf(9600, "8N1"));
  EXPECT_TRUE(policy.acquire(&_port.descriptor, &_error));
  EXPECT_EQ(terminalSpeeds(_port.descriptor), Speeds(9600, 9600));
}

TEST_F(ZPIUARTLifetimePolicyTest, CloseIsAPlainCloseAndReportsItsFailure) {
  const ZPIUARTLifetimePolicy policy(ZPKURL::initWithString(_peer.url()), optionsOf(9600, "8N1"));
  ASSERT_TRUE(policy.acquire(&_port.descriptor, &_error));
  {
    const SystemCalls calls;
    EXPECT_TRUE(policy.close(_port.descriptor, &_error));
    EXPECT_THAT(calls.texts(), ElementsAre("close"));
  }
  EXPECT_EQ(_error, olderError());
  // The settings are kept.
  EXPECT_EQ(terminalAttributes(_peer.nearEnd()).c_lflag, 0U);
  const int32_t closed = std::exchange(_port.descriptor, -1);
  EXPECT_FALSE(policy.close(closed, &_error));
  expectFailure(
      _error, _log,
      {"zephal-communication", 4, "Error closing port - " + numbered(EBADF), "close", kFile});
  EXPECT_FALSE(policy.close(closed, nullptr));
  EXPECT_EQ(_log.lines().size(), 2U);
}

}  // namespace
