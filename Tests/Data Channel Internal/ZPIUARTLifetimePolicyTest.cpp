#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "Data Channel Internal/ZPIUARTLifetimePolicy.h"
#include "Support/ErrorExpectations.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SystemCalls.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPKConstants.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Speeds = std::pair<uint32_t, uint32_t>;

constexpr const char* kFile = "ZPIUARTLifetimePolicy.cpp";
constexpr const char* kOpen = "openPortWithError__no_cleanup";

ZPKOptionsPtr optionsOf(ZPKNumber baud, const std::string& mode, bool isExclusive = true) {
  auto options = ZPKOptions::init();
  options->set(ZEPHAL_COMMUNICATION_UART_BAUD, baud);
  options->set(ZEPHAL_COMMUNICATION_UART_MODE, mode);
  options->set(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, isExclusive);
  return options;
}

std::string numbered(int number) {
  return std::string(std::strerror(number)) + "(" + std::to_string(number) + ")";
}

// A port under test: what an open left behind is closed at the end.
class Port {
 public:
  Port() = default;
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;
  ~Port() {
    if (descriptor >= 0) ::close(descriptor);
  }

  bool open(const std::string& url, const ZPKOptionsPtr& options, ZPKErrorPtr* error = nullptr) {
    return ZPIUARTLifetimePolicy::openPortWithError__no_cleanup(
        &descriptor, ZPKURL::initWithString(url), options, error);
  }

  int32_t descriptor = -1;
};

class ZPIUARTLifetimePolicyTest : public testing::Test {
 protected:
  bool open(ZPKNumber baud, const std::string& mode, bool isExclusive = true) {
    return _port.open(_peer.url(), optionsOf(baud, mode, isExclusive), &_error);
  }

  // The attributes that went to tcsetattr: a pseudo-terminal does not keep all of them.
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

  ExpectedFailure stepFailure(const std::string& text, int number, const char* end = "") const {
    return {"zephal-communication", 4, text + _peer.path() + " - " + numbered(number) + end, kOpen,
            kFile};
  }

  TransportPeer _peer{TransportPeer::Kind::kTerminal};
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
  Port _port;
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

TEST_F(ZPIUARTLifetimePolicyTest, ARateOutsideTheListComesLastAndSkipsCfsetspeed) {
  SystemCalls calls;
  EXPECT_TRUE(open(1000000, "8N1"));
  EXPECT_THAT(calls.texts(),
              ElementsAre("open " + _peer.path() + " O_RDWR|O_NOCTTY|O_NONBLOCK|O_CLOEXEC",
                          "ioctl TIOCEXCL", "fcntl F_SETFL 0", "tcgetattr", "tcsetattr TCSANOW",
                          "ioctl TCGETS2", "ioctl TCSETS2", "ioctl TCGETS2"));
}

TEST_F(ZPIUARTLifetimePolicyTest, WithoutTheExclusiveOptionNoHoldIsTakenAndNoneIsLifted) {
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

TEST_F(ZPIUARTLifetimePolicyTest, RatesWithAConstantGoThroughCfsetspeedAlone) {
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

TEST_F(ZPIUARTLifetimePolicyTest, AnInputSpeedThatWasSetApartFollows) {
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

TEST_F(ZPIUARTLifetimePolicyTest, ARateThatTheDriverDidNotTakeIsRefused) {
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

TEST_F(ZPIUARTLifetimePolicyTest, ARateOutsideTheListLeavesTheSpeedFieldsOfTheAttributesAlone) {
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

TEST_F(ZPIUARTLifetimePolicyTest, ARateThatTheSystemCannotSetIsRefusedWithTheNumberAlone) {
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

TEST_F(ZPIUARTLifetimePolicyTest, LeavesFlowControlHangUpAndFixedParityAsTheyWere) {
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

TEST_F(ZPIUARTLifetimePolicyTest, Mode7E2IsSevenBitsEvenParityAndTwoStopBits) {
  SystemCalls calls;
  EXPECT_TRUE(open(9600, "7E2"));
  const termios attributes = attributesSet(calls);
  EXPECT_EQ(attributes.c_cflag & CSIZE, static_cast<tcflag_t>(CS7));
  EXPECT_NE(attributes.c_cflag & PARENB, 0U);
  EXPECT_EQ(attributes.c_cflag & PARODD, 0U);
  EXPECT_NE(attributes.c_cflag & CSTOPB, 0U);
}

TEST_F(ZPIUARTLifetimePolicyTest, Mode8N1IsEightBitsNoParityAndOneStopBit) {
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

// --- What goes wrong

TEST_F(ZPIUARTLifetimePolicyTest, ADeviceThatIsNotThereFailsAtOpen) {
  _error = olderError();
  EXPECT_FALSE(_port.open("uart:///no/such/%25d/device", optionsOf(9600, "8N1"), &_error));
  expectFailure(
      _error, _log,
      {"zephal-communication", 4,
       "Error opening serial port /no/such/%d/device - " + numbered(ENOENT) + ".", kOpen, kFile});
  EXPECT_EQ(_port.descriptor, -1);
}

TEST_F(ZPIUARTLifetimePolicyTest, AnEmptyPathFailsAtOpen) {
  EXPECT_FALSE(_port.open("uart://host", optionsOf(9600, "8N1"), &_error));
  EXPECT_EQ(_error->description(), "Error opening serial port  - " + numbered(ENOENT) + ".");
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailedOpenMakesNoFurtherCall) {
  SystemCalls calls;
  calls.fail("open", EBUSY);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error opening serial port ", EBUSY, "."));
  EXPECT_EQ(calls.all().size(), 1U);
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailureToTakeTheExclusiveHold) {
  SystemCalls calls;
  calls.fail("ioctl TIOCEXCL", EIO);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error setting TIOCEXCL on ", EIO));
  EXPECT_EQ(calls.texts().back(), "ioctl TIOCEXCL");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailureToClearTheNonblockingFlag) {
  SystemCalls calls;
  calls.fail("fcntl", EIO);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error clearing O_NONBLOCK ", EIO));
  EXPECT_EQ(calls.texts().back(), "fcntl F_SETFL 0");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailureToGetTheAttributes) {
  SystemCalls calls;
  calls.fail("tcgetattr", EIO);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error getting tty attributes ", EIO));
  EXPECT_EQ(calls.texts().back(), "tcgetattr");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailureToSetTheAttributes) {
  SystemCalls calls;
  calls.fail("tcsetattr", EIO);
  EXPECT_FALSE(open(1000000, "8N1"));
  expectFailure(_error, _log, stepFailure("Error setting tty attributes ", EIO));
  EXPECT_EQ(calls.texts().back(), "tcsetattr TCSANOW");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailureToSetTheExactSpeed) {
  SystemCalls calls;
  calls.fail("ioctl TCSETS2", EIO);
  EXPECT_FALSE(open(1000000, "8N1"));
  expectFailure(
      _error, _log,
      {"zephal-communication", 4, "Error 5 calling ioctl( ..., ZSSIOSPEED, ... )", kOpen, kFile});
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyTest, EveryFailureIsLoggedOnceWithoutASlotToo) {
  struct Case {
    const char* call;
    const char* text;
    const char* end;
  };
  for (const Case& step : {Case{"open", "Error opening serial port ", "."},
                           Case{"ioctl TIOCEXCL", "Error setting TIOCEXCL on ", ""},
                           Case{"fcntl", "Error clearing O_NONBLOCK ", ""},
                           Case{"tcgetattr", "Error getting tty attributes ", ""},
                           Case{"tcsetattr", "Error setting tty attributes ", ""}}) {
    LogCapture log;
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    Port port;
    SystemCalls calls;
    calls.fail(step.call, EIO);
    EXPECT_FALSE(port.open(peer.url(), optionsOf(9600, "8N1", true), nullptr)) << step.call;
    const std::string line = step.text + peer.path() + " - " + numbered(EIO) + step.end;
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, line}));
    EXPECT_EQ(port.descriptor >= 0, std::string(step.call) != "open");
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, AFailureToSetTheExactSpeedIsLoggedOnceWithoutASlotToo) {
  SystemCalls calls;
  calls.fail("ioctl TCSETS2", EIO);
  EXPECT_FALSE(_port.open(_peer.url(), optionsOf(12345, "8N1"), nullptr));
  EXPECT_THAT(_log.lines(),
              ElementsAre(LogLine{0, "Error 5 calling ioctl( ..., ZSSIOSPEED, ... )"}));
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyTest, ABadModeIsLoggedOnceWithoutASlotToo) {
  const std::pair<const char*, const char*> cases[] = {
      {"9N1", "Invalid Character Size (Use 5, 6, 7, or 8)"},
      {"8n1", "Invalid parity (Use N, O, or E)"},
      {"8N3", "Invalid stop but (Use 1, or 2)"}};
  for (const auto& [mode, line] : cases) {
    LogCapture log;
    Port port;
    EXPECT_FALSE(port.open(_peer.url(), optionsOf(9600, mode, false), nullptr)) << mode;
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, line}));
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, AFileThatIsNoTerminal) {
  const TemporaryFolder folder;
  const std::string path = folder.pathOf("file");
  std::ofstream(path) << "x";
  for (const bool isExclusive : {true, false}) {
    LogCapture log;
    Port port;
    ZPKErrorPtr error;
    EXPECT_FALSE(port.open("uart://" + path, optionsOf(9600, "8N1", isExclusive), &error));
    const std::string step =
        isExclusive ? "Error setting TIOCEXCL on " : "Error getting tty attributes ";
    expectFailure(
        error, log,
        {"zephal-communication", 4, step + path + " - " + numbered(ENOTTY), kOpen, kFile});
  }
}

// --- Modes

TEST_F(ZPIUARTLifetimePolicyTest, ABadModeIsFoundAfterTheDeviceWasOpenedAndHeld) {
  struct Case {
    const char* mode;
    const char* text;
    const char* function;
  };
  for (const Case& bad :
       {Case{"9N1", "Invalid Character Size (Use 5, 6, 7, or 8)", "setCharacterSizeSpecifier"},
        Case{"4N1", "Invalid Character Size (Use 5, 6, 7, or 8)", "setCharacterSizeSpecifier"},
        Case{"9X3", "Invalid Character Size (Use 5, 6, 7, or 8)", "setCharacterSizeSpecifier"},
        Case{"8n1", "Invalid parity (Use N, O, or E)", "setParityMaskSpecifier"},
        Case{"8M3", "Invalid parity (Use N, O, or E)", "setParityMaskSpecifier"},
        Case{"8N0", "Invalid stop but (Use 1, or 2)", "setStopBitSpecifier"},
        Case{"8N3", "Invalid stop but (Use 1, or 2)", "setStopBitSpecifier"}}) {
    LogCapture log;
    Port port;
    ZPKErrorPtr error = olderError();
    TransportPeer peer(TransportPeer::Kind::kTerminal);
    const termios before = terminalAttributes(peer.nearEnd());
    SystemCalls calls;
    EXPECT_FALSE(port.open(peer.url(), optionsOf(9600, bad.mode), &error));
    expectFailure(error, log, {"zephal-communication", 3, bad.text, bad.function, kFile});
    EXPECT_EQ(calls.count("ioctl TIOCEXCL"), 1U);
    EXPECT_EQ(calls.count("tcsetattr"), 0U);
    EXPECT_EQ(terminalAttributes(peer.nearEnd()).c_lflag, before.c_lflag);
    EXPECT_TRUE(isOpenDescriptor(port.descriptor));
  }
}

TEST_F(ZPIUARTLifetimePolicyTest, AModeThatIsTooShortThrowsWithTheDeviceOpen) {
  for (const char* const mode : {"", "8", "8N"}) {
    Port port;
    ZPKErrorPtr error = olderError();
    EXPECT_THROW(port.open(_peer.url(), optionsOf(9600, mode, false), &error), std::out_of_range);
    EXPECT_TRUE(isOpenDescriptor(port.descriptor));
    EXPECT_EQ(error, olderError());
  }
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPIUARTLifetimePolicyTest, ABadCharacterAheadOfTheMissingOneIsReported) {
  EXPECT_FALSE(open(9600, "9"));
  EXPECT_EQ(_error->description(), "Invalid Character Size (Use 5, 6, 7, or 8)");
}

TEST(ZPIUARTModeTest, EachSizeReplacesTheOneBefore) {
  const std::pair<char, tcflag_t> sizes[] = {{'5', CS5}, {'6', CS6}, {'7', CS7}, {'8', CS8}};
  for (const auto& [character, bits] : sizes) {
    for (const tcflag_t before : {tcflag_t{0}, tcflag_t{CSIZE}, ~tcflag_t{0}}) {
      termios attributes{};
      attributes.c_cflag = before;
      ZPKErrorPtr error = olderError();
      EXPECT_TRUE(ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(&attributes, character, &error));
      EXPECT_EQ(attributes.c_cflag, (before & ~tcflag_t{CSIZE}) | bits);
      EXPECT_EQ(error, olderError());
    }
  }
}

TEST(ZPIUARTModeTest, ABadSizeHasClearedTheSizeAllTheSame) {
  LogCapture log;
  termios attributes{};
  attributes.c_cflag = ~tcflag_t{0};
  ZPKErrorPtr error;
  EXPECT_FALSE(ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(&attributes, '\0', &error));
  EXPECT_EQ(attributes.c_cflag, ~tcflag_t{CSIZE});
  EXPECT_FALSE(ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(&attributes, '9', nullptr));
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(ZPIUARTModeTest, EachParityTouchesItsBitsAlone) {
  const auto both = static_cast<tcflag_t>(PARENB | PARODD);
  for (const tcflag_t before : {tcflag_t{0}, ~tcflag_t{0}, tcflag_t{PARODD}, tcflag_t{PARENB}}) {
    termios attributes{};
    attributes.c_cflag = before;
    EXPECT_TRUE(ZPIUARTLifetimePolicy::setParityMaskSpecifier(&attributes, 'N', nullptr));
    EXPECT_EQ(attributes.c_cflag, before & ~tcflag_t{PARENB});
    attributes.c_cflag = before;
    EXPECT_TRUE(ZPIUARTLifetimePolicy::setParityMaskSpecifier(&attributes, 'O', nullptr));
    EXPECT_EQ(attributes.c_cflag, before | both);
    attributes.c_cflag = before;
    EXPECT_TRUE(ZPIUARTLifetimePolicy::setParityMaskSpecifier(&attributes, 'E', nullptr));
    EXPECT_EQ(attributes.c_cflag, (before & ~both) | PARENB);
    attributes.c_cflag = before;
    LogCapture log;
    EXPECT_FALSE(ZPIUARTLifetimePolicy::setParityMaskSpecifier(&attributes, 'e', nullptr));
    EXPECT_EQ(attributes.c_cflag, before);
    EXPECT_THAT(log.texts(), ElementsAre("Invalid parity (Use N, O, or E)"));
  }
}

TEST(ZPIUARTModeTest, EachNumberOfStopBitsTouchesItsBitAlone) {
  for (const tcflag_t before : {tcflag_t{0}, ~tcflag_t{0}}) {
    termios attributes{};
    attributes.c_cflag = before;
    EXPECT_TRUE(ZPIUARTLifetimePolicy::setStopBitSpecifier(&attributes, '1', nullptr));
    EXPECT_EQ(attributes.c_cflag, before & ~tcflag_t{CSTOPB});
    EXPECT_TRUE(ZPIUARTLifetimePolicy::setStopBitSpecifier(&attributes, '2', nullptr));
    EXPECT_EQ(attributes.c_cflag, before | CSTOPB);
    LogCapture log;
    EXPECT_FALSE(ZPIUARTLifetimePolicy::setStopBitSpecifier(&attributes, '3', nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("Invalid stop but (Use 1, or 2)"));
  }
}

// --- The exclusive hold. Root passes it, so the second opener is an ordinary user.

class ZPIUARTHoldTest : public testing::Test {
 protected:
  ZPIUARTHoldTest() { ::chmod(_peer.path().c_str(), 0666); }

  // Opens the port as an ordinary user: 0 if that works and 1 if not, with the error and the calls
  // as the message.
  ChildResult openElsewhere(bool isExclusive) {
    return runAsOrdinaryUser([this, isExclusive](std::string* message) {
      LogCapture log;
      Port port;
      ZPKErrorPtr error;
      const SystemCalls calls;
      const bool isOpen = port.open(_peer.url(), optionsOf(9600, "8N1", isExclusive), &error);
      if (error != nullptr) *message = error->description();
      for (const std::string& text : calls.texts({"ioctl"})) *message += ", " + text;
      return isOpen ? 0 : 1;
    });
  }

  TransportPeer _peer{TransportPeer::Kind::kTerminal};
  Port _port;
};

TEST_F(ZPIUARTHoldTest, ADeviceThatIsHeldFailsAtOpenAndItsHoldIsNotAskedFor) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", true)));
  const ChildResult result = openElsewhere(true);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.message,
            "Error opening serial port " + _peer.path() + " - " + numbered(EBUSY) + ".");
}

// The terminal stays held for as long as anybody has it open, as the far end does here.
TEST_F(ZPIUARTHoldTest, AHoldOutlivesItsCloseWhileAnybodyHasTheDeviceOpen) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", true)));
  ::close(std::exchange(_port.descriptor, -1));
  for (const bool isExclusive : {true, false}) {
    const ChildResult result = openElsewhere(isExclusive);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.message,
              "Error opening serial port " + _peer.path() + " - " + numbered(EBUSY) + ".");
  }
}

TEST_F(ZPIUARTHoldTest, WithoutTheHoldAClosedDeviceCanBeOpenedAgain) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", false)));
  ::close(std::exchange(_port.descriptor, -1));
  EXPECT_EQ(openElsewhere(false).status, 0);
}

TEST_F(ZPIUARTHoldTest, WithoutTheHoldTwoProcessesShareTheDevice) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", false)));
  const ChildResult result = openElsewhere(false);
  EXPECT_EQ(result.status, 0) << result.message;
  EXPECT_EQ(result.message, "");
}

TEST_F(ZPIUARTHoldTest, ASecondOpenerMayTakeAHoldThatTheFirstLeft) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", false)));
  const ChildResult result = openElsewhere(true);
  EXPECT_EQ(result.status, 0) << result.message;
  EXPECT_EQ(result.message, ", ioctl TIOCEXCL");
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
  // The settings stay.
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
