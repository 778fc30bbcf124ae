// The exclusive hold. It does not stop root, so the second opener is an ordinary user.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "Support/LogCapture.h"
#include "Support/OrdinaryUser.h"
#include "Support/SerialPortFixture.h"
#include "Support/SystemCalls.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

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

TEST_F(ZPIUARTHoldTest, AHeldDeviceFailsToOpenAndIsLeftAlone) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", true)));
  const ChildResult result = openElsewhere(true);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.message,
            "Error opening serial port " + _peer.path() + " - " + numbered(EBUSY) + ".");
}

// The terminal stays held while anything has it open, as the far end does here.
TEST_F(ZPIUARTHoldTest, AHoldOutlivesItsCloseWhileTheDeviceIsOpen) {
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

TEST_F(ZPIUARTHoldTest, ASecondOpenerMayTakeTheHold) {
  ASSERT_TRUE(_port.open(_peer.url(), optionsOf(9600, "8N1", false)));
  const ChildResult result = openElsewhere(true);
  EXPECT_EQ(result.status, 0) << result.message;
  EXPECT_EQ(result.message, ", ioctl TIOCEXCL");
}

}  // namespace
