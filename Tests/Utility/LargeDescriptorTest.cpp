#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/FileDescriptorCommunicationFixture.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;

// Descriptors that do not fit into a set.
class LargeDescriptorTest : public FileDescriptorCommunicationFixture {
 protected:
  LargeDescriptorTest() {
    ::getrlimit(RLIMIT_NOFILE, &_before);
    rlimit raised = _before;
    raised.rlim_cur = std::min<rlim_t>(raised.rlim_max, 4096);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
  }
  ~LargeDescriptorTest() override { ::setrlimit(RLIMIT_NOFILE, &_before); }

  // Duplicates our end to a number of at least `lowest`.
  void move(int lowest) {
    const int moved = ::fcntl(_pair.ours, F_DUPFD_CLOEXEC, lowest);
    ASSERT_GE(moved, lowest);
    ::close(_pair.ours);
    _pair.ours = moved;
  }

  rlimit _before{};
};

TEST_F(LargeDescriptorTest, TheLastOneThatFitsIsReadAsUsual) {
  move(FD_SETSIZE - 1);
  ASSERT_EQ(_pair.ours, FD_SETSIZE - 1);
  auto communication = openOne();
  _pair.send("x");
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error)->view(), "x");
  EXPECT_EQ(communication.readWithTimeout(0.01, &_error)->length(), 0U);
}

TEST_F(LargeDescriptorTest, AReadEndsAsIfNothingHadArrived) {
  for (const int lowest : {FD_SETSIZE, FD_SETSIZE + 500}) {
    move(lowest);
    auto communication = openOne();
    _pair.send("x");
    SystemCalls calls;
    EXPECT_EQ(communication.readWithTimeout(0.02, &_error)->length(), 0U);
    EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "select 0.020000"));
    EXPECT_EQ(calls.all().back().size, FD_SETSIZE);
    EXPECT_TRUE(communication.isOpen());
  }
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(LargeDescriptorTest, AReadWithoutALimitEndsAsWell) {
  move(FD_SETSIZE);
  auto communication = openOne();
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error)->length(),
            0U);
  EXPECT_TRUE(communication.isOpen());
}

TEST_F(LargeDescriptorTest, TheLargestNumberOfAllIsOneOfThem) {
  RecordingCommunication communication(std::numeric_limits<int32_t>::max(),
                                       RecordingPolicy(&_record));
  for (const double timeout : {0.01, ZEPHAL_COMMUNICATION_TIME_FOREVER}) {
    SystemCalls calls;
    EXPECT_EQ(communication.readWithTimeout(timeout, &_error)->length(), 0U);
    EXPECT_EQ(calls.all().back().size, FD_SETSIZE);
  }
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
}

TEST_F(LargeDescriptorTest, NowAndWritesWorkAsUsual) {
  move(FD_SETSIZE + 100);
  auto communication = openOne();
  _pair.send("x");
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &_error)->view(), "x");
  EXPECT_TRUE(communication.write(dataOf("y"), &_error));
  EXPECT_EQ(_pair.receive(), "y");
}

}  // namespace
