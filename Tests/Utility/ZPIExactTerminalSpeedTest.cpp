#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Support/SystemCalls.h"
#include "Support/TerminalState.h"
#include "Utility/ZPIExactTerminalSpeed.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Speeds = std::pair<uint32_t, uint32_t>;

class ZPIExactTerminalSpeedTest : public testing::Test {
 protected:
  ZPIExactTerminalSpeedTest() : _terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_GE(_terminal, 0);
  }
  ~ZPIExactTerminalSpeedTest() override { ::close(_terminal); }

  const int _terminal;
};

TEST_F(ZPIExactTerminalSpeedTest, SetsBothSpeedsToExactlyTheRate) {
  for (const uint64_t rate : {uint64_t{1000000}, uint64_t{12345}, uint64_t{7200}, uint64_t{0},
                              uint64_t{115200}, uint64_t{4294967295}}) {
    EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, rate), 0);
    const auto exact = static_cast<uint32_t>(rate);
    EXPECT_EQ(terminalSpeeds(_terminal), Speeds(exact, exact));
  }
}

TEST_F(ZPIExactTerminalSpeedTest, LeavesEverythingElseAsItWas) {
  termios before = terminalAttributes(_terminal);
  before.c_cc[VMIN] = 7;
  before.c_cflag |= CSTOPB | CREAD | CLOCAL;
  before.c_lflag &= ~static_cast<tcflag_t>(ICANON);
  ASSERT_EQ(::tcsetattr(_terminal, TCSANOW, &before), 0);
  before = terminalAttributes(_terminal);
  EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, 12345), 0);
  const termios after = terminalAttributes(_terminal);
  EXPECT_EQ(after.c_iflag, before.c_iflag);
  EXPECT_EQ(after.c_oflag, before.c_oflag);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  const tcflag_t kOthers = ~static_cast<tcflag_t>(CBAUD | CIBAUD);
  EXPECT_EQ(after.c_cflag & kOthers, before.c_cflag & kOthers);
  EXPECT_EQ(std::memcmp(after.c_cc, before.c_cc, sizeof after.c_cc), 0);
}

TEST_F(ZPIExactTerminalSpeedTest, RejectsMoreThan32BitsWithoutAskingTheSystem) {
  const SystemCalls calls;
  for (const uint64_t rate : {uint64_t{1} << 32, ~uint64_t{0}}) {
    errno = 0;
    EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, rate), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_TRUE(calls.all().empty());
}

TEST_F(ZPIExactTerminalSpeedTest, FailsForADescriptorThatIsNotATerminal) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  EXPECT_EQ(ZPISetExactTerminalSpeed(ends[0], 9600), -1);
  EXPECT_EQ(errno, ENOTTY);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(ZPIExactTerminalSpeedTest, RejectsARateThatTheDriverDidNotSet) {
  constexpr uint32_t kRate = 1000000;
  struct Case {
    Speeds taken;
    bool isClose;
  };
  for (const Case& driver :
       {Case{{115200, 115200}, false}, Case{{kRate, kRate}, true}, Case{{1030000, 970000}, true},
        Case{{kRate, 1030001}, false}, Case{{1030001, kRate}, false}, Case{{kRate, 969999}, false},
        Case{{969999, kRate}, false}, Case{{kRate, 0}, false}}) {
    SystemCalls calls;
    // The driver sets its own choice of speeds before they are read back.
    calls.before(
        "ioctl TCGETS2",
        [&] { setTerminalSpeeds(_terminal, driver.taken.first, driver.taken.second); }, 1);
    errno = 0;
    EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, kRate), driver.isClose ? 0 : -1);
    EXPECT_EQ(errno, driver.isClose ? 0 : EINVAL) << driver.taken.first << driver.taken.second;
    EXPECT_THAT(calls.texts(), ElementsAre("ioctl TCGETS2", "ioctl TCSETS2", "ioctl TCGETS2"));
  }
}

TEST_F(ZPIExactTerminalSpeedTest, FailsIfTheRateCannotBeReadBack) {
  SystemCalls calls;
  calls.fail("ioctl TCGETS2", EIO, 1);
  EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, 9600), -1);
  EXPECT_EQ(errno, EIO);
}

// A rate of zero hangs up, and drivers differ in the speed that they keep.
TEST_F(ZPIExactTerminalSpeedTest, ARateOfZeroIsNotReadBack) {
  SystemCalls calls;
  EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, 0), 0);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl TCGETS2", "ioctl TCSETS2"));
}

TEST_F(ZPIExactTerminalSpeedTest, FailsWithTheErrnoOfTheRequest) {
  SystemCalls calls;
  calls.fail("ioctl TCSETS2", EIO);
  EXPECT_EQ(ZPISetExactTerminalSpeed(_terminal, 9600), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl TCGETS2", "ioctl TCSETS2"));
}

}  // namespace
