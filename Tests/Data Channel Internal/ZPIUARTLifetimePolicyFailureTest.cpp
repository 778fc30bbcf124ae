// Opens that fail, and modes that are wrong.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <termios.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "Data Channel Internal/ZPIUARTLifetimePolicy.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/SerialPortFixture.h"
#include "Support/SystemCalls.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZPIUARTLifetimePolicyFailureTest : public SerialPortFixture {
 protected:
  ExpectedFailure stepFailure(const std::string& text, int number, const char* end = "") const {
    return {"zephal-communication", 4, text + _peer.path() + " - " + numbered(number) + end, kOpen,
            kFile};
  }
};

// --- Failures

TEST_F(ZPIUARTLifetimePolicyFailureTest, AMissingDeviceFailsAtOpen) {
  _error = olderError();
  EXPECT_FALSE(_port.open("uart:///no/such/%25d/device", optionsOf(9600, "8N1"), &_error));
  expectFailure(
      _error, _log,
      {"zephal-communication", 4,
       "Error opening serial port /no/such/%d/device - " + numbered(ENOENT) + ".", kOpen, kFile});
  EXPECT_EQ(_port.descriptor, -1);
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AnEmptyPathFailsAtOpen) {
  EXPECT_FALSE(_port.open("uart://host", optionsOf(9600, "8N1"), &_error));
  EXPECT_EQ(_error->description(), "Error opening serial port  - " + numbered(ENOENT) + ".");
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFailedOpenMakesNoFurtherCall) {
  SystemCalls calls;
  calls.fail("open", EBUSY);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error opening serial port ", EBUSY, "."));
  EXPECT_EQ(calls.all().size(), 1U);
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFailureToTakeTheExclusiveHold) {
  SystemCalls calls;
  calls.fail("ioctl TIOCEXCL", EIO);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error setting TIOCEXCL on ", EIO));
  EXPECT_EQ(calls.texts().back(), "ioctl TIOCEXCL");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFailureToClearTheNonblockingFlag) {
  SystemCalls calls;
  calls.fail("fcntl", EIO);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error clearing O_NONBLOCK ", EIO));
  EXPECT_EQ(calls.texts().back(), "fcntl F_SETFL 0");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFailureToGetTheAttributes) {
  SystemCalls calls;
  calls.fail("tcgetattr", EIO);
  EXPECT_FALSE(open(9600, "8N1"));
  expectFailure(_error, _log, stepFailure("Error getting tty attributes ", EIO));
  EXPECT_EQ(calls.texts().back(), "tcgetattr");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFailureToSetTheAttributes) {
  SystemCalls calls;
  calls.fail("tcsetattr", EIO);
  EXPECT_FALSE(open(1000000, "8N1"));
  expectFailure(_error, _log, stepFailure("Error setting tty attributes ", EIO));
  EXPECT_EQ(calls.texts().back(), "tcsetattr TCSANOW");
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFailureToSetTheExactSpeed) {
  SystemCalls calls;
  calls.fail("ioctl TCSETS2", EIO);
  EXPECT_FALSE(open(1000000, "8N1"));
  expectFailure(
      _error, _log,
      {"zephal-communication", 4, "Error 5 calling ioctl( ..., ZSSIOSPEED, ... )", kOpen, kFile});
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, EveryFailureIsLoggedOnceWithoutASlotToo) {
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

TEST_F(ZPIUARTLifetimePolicyFailureTest, WithoutASlotARefusedExactSpeedIsLoggedOnce) {
  SystemCalls calls;
  calls.fail("ioctl TCSETS2", EIO);
  EXPECT_FALSE(_port.open(_peer.url(), optionsOf(12345, "8N1"), nullptr));
  EXPECT_THAT(_log.lines(),
              ElementsAre(LogLine{0, "Error 5 calling ioctl( ..., ZSSIOSPEED, ... )"}));
  EXPECT_TRUE(isOpenDescriptor(_port.descriptor));
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, ABadModeIsLoggedOnceWithoutASlotToo) {
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

TEST_F(ZPIUARTLifetimePolicyFailureTest, AFileThatIsNotATerminal) {
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

TEST_F(ZPIUARTLifetimePolicyFailureTest, ABadModeIsDetectedOnceTheDeviceIsOpen) {
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

TEST_F(ZPIUARTLifetimePolicyFailureTest, ATooShortModeThrowsWithTheDeviceOpen) {
  for (const char* const mode : {"", "8", "8N"}) {
    Port port;
    ZPKErrorPtr error = olderError();
    EXPECT_THROW(port.open(_peer.url(), optionsOf(9600, mode, false), &error), std::out_of_range);
    EXPECT_TRUE(isOpenDescriptor(port.descriptor));
    EXPECT_EQ(error, olderError());
  }
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPIUARTLifetimePolicyFailureTest, ABadCharacterBeforeTheMissingOneIsReported) {
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

TEST(ZPIUARTModeTest, ABadSizeStillClearsTheOldSize) {
  LogCapture log;
  termios attributes{};
  attributes.c_cflag = ~tcflag_t{0};
  ZPKErrorPtr error;
  EXPECT_FALSE(ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(&attributes, '\0', &error));
  EXPECT_EQ(attributes.c_cflag, ~tcflag_t{CSIZE});
  EXPECT_FALSE(ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(&attributes, '9', nullptr));
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(ZPIUARTModeTest, EachParityTouchesOnlyItsBits) {
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

TEST(ZPIUARTModeTest, EachNumberOfStopBitsTouchesOnlyItsBit) {
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

}  // namespace
