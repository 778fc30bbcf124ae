#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;

class SystemCallsTest : public testing::Test {
 protected:
  SystemCallsTest() { EXPECT_EQ(::pipe(_ends), 0); }
  ~SystemCallsTest() override {
    ::close(_ends[0]);
    ::close(_ends[1]);
  }

  int _ends[2];
};

TEST_F(SystemCallsTest, RecordsCallsInOrderWithTheirResults) {
  const SystemCalls calls;
  char buffer[8];
  int waiting = 0;
  EXPECT_EQ(::write(_ends[1], "abc", 3), 3);
  EXPECT_EQ(::ioctl(_ends[0], FIONREAD, &waiting), 0);
  EXPECT_EQ(::read(_ends[0], buffer, sizeof buffer), 3);
  EXPECT_EQ(waiting, 3);
  EXPECT_THAT(calls.texts(), ElementsAre("write", "ioctl FIONREAD", "read"));
  EXPECT_THAT(calls.texts({"ioctl"}), ElementsAre("ioctl FIONREAD"));
  const SystemCall read = calls.all().back();
  EXPECT_EQ(read.descriptor, _ends[0]);
  EXPECT_EQ(read.size, 8);
  EXPECT_EQ(read.result, 3);
}

TEST_F(SystemCallsTest, MakesTheChosenCallFail) {
  SystemCalls calls;
  calls.fail("write", EPIPE, 1);
  EXPECT_EQ(::write(_ends[1], "a", 1), 1);
  errno = 0;
  EXPECT_EQ(::write(_ends[1], "b", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(::write(_ends[1], "c", 1), 1);
  EXPECT_EQ(calls.count("write"), 3U);
  EXPECT_EQ(calls.all()[1].error, EPIPE);
}

TEST_F(SystemCallsTest, ShortensAnswersAndRunsActions) {
  SystemCalls calls;
  char buffer[8];
  calls.shorten("write", 2);
  calls.answer("write", 0, 0, 1);
  calls.before("read", [this] { EXPECT_EQ(::write(_ends[1], "x", 1), 1); });
  EXPECT_EQ(::write(_ends[1], "abc", 3), 2);
  errno = 0;
  EXPECT_EQ(::write(_ends[1], "abc", 3), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(::read(_ends[0], buffer, sizeof buffer), 3);
  EXPECT_THAT(calls.texts(), ElementsAre("write", "write", "read"));
}

TEST_F(SystemCallsTest, ShowsHowAFileIsLocked) {
  const SystemCalls calls;
  ::flock(_ends[0], LOCK_EX);
  ::flock(_ends[0], LOCK_UN);
  EXPECT_THAT(calls.texts(), ElementsAre("flock LOCK_EX", "flock LOCK_UN"));
}

TEST_F(SystemCallsTest, CountsAllocationsAndMakesOneFail) {
  SystemCalls calls;
  EXPECT_EQ(calls.allocations(), 0U);
  void* volatile block = std::malloc(10);
  std::free(block);
  EXPECT_EQ(calls.allocations(), 1U);
  // Called by name, since a new-expression may be optimised away.
  void* const object = ::operator new(sizeof(long));
  EXPECT_EQ(calls.allocations(), 2U);
  ::operator delete(object);
  calls.failAllocation();
  block = std::malloc(10);
  EXPECT_EQ(block, nullptr);
  block = std::malloc(10);
  EXPECT_NE(block, nullptr);
  std::free(block);
}

TEST_F(SystemCallsTest, LeavesOtherThreadsAloneUnlessToldOtherwise) {
  const auto writeElsewhere = [this] {
    std::thread([this] { EXPECT_EQ(::write(_ends[1], "a", 1), 1); }).join();
  };
  {
    const SystemCalls calls;
    writeElsewhere();
    EXPECT_EQ(calls.count("write"), 0U);
  }
  const SystemCalls calls(SystemCalls::Threads::kAll);
  writeElsewhere();
  std::thread([this] {
    SystemCalls::exemptThisThread();
    EXPECT_EQ(::write(_ends[1], "a", 1), 1);
  }).join();
  EXPECT_EQ(calls.count("write"), 1U);
}

}  // namespace
