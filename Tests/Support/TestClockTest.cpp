#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <string>
#include <thread>

#include "Support/EventWait.h"
#include "Support/TestClock.h"

using namespace support;

namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;
using Wall = std::chrono::system_clock;

// Every way in which the program waits with a limit.
void select1s() {
  timeval time{1, 0};
  EXPECT_EQ(::select(0, nullptr, nullptr, nullptr, &time), 0);
}
void usleep1s() { EXPECT_EQ(::usleep(1000000), 0); }
void sleep1s() { std::this_thread::sleep_for(1s); }

template <class Clock>
void waitOnCondition1s() {
  std::mutex mutex;
  std::condition_variable condition;
  std::unique_lock lock(mutex);
  EXPECT_FALSE(condition.wait_until(lock, Clock::now() + 1s, [] { return false; }));
}

struct NamedWait {
  const char* name;
  std::function<void()> wait;
};

std::string nameOf(const testing::TestParamInfo<NamedWait>& info) { return info.param.name; }

class TestClockWaitTest : public testing::TestWithParam<NamedWait> {};

INSTANTIATE_TEST_SUITE_P(Waits, TestClockWaitTest,
                         testing::Values(NamedWait{"Select", select1s},
                                         NamedWait{"Usleep", usleep1s}, NamedWait{"Sleep", sleep1s},
                                         NamedWait{"WallCondition", waitOnCondition1s<Wall>},
                                         NamedWait{"SteadyCondition", waitOnCondition1s<Steady>}),
                         nameOf);

TEST_P(TestClockWaitTest, EndsWhenTheClockPassesItsLimit) {
  TestClock clock;
  std::atomic<bool> isOver{false};
  std::thread thread([&] {
    GetParam().wait();
    isOver = true;
  });
  EXPECT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  clock.advance(999ms);
  // The thread looks at the clock several times; each look could end the wait.
  const auto start = Steady::now();
  const bool endedEarly = waitFor([&] { return isOver.load(); }, 5ms);
  EXPECT_EQ(Steady::now(), start);
  clock.advance(1ms);
  thread.join();
  EXPECT_FALSE(endedEarly);
  EXPECT_EQ(clock.waits(), 0U);
}

TEST_P(TestClockWaitTest, MovesTheClockToItsLimitWhereWaitsAreSkipped) {
  TestClock clock;
  const SkippedWaits skipped(clock);
  GetParam().wait();
  GetParam().wait();
  EXPECT_GE(clock.passed(), 2s);
  EXPECT_LT(clock.passed(), 2s + 1ms);
}

TEST_P(TestClockWaitTest, EndsWhenTheTestBeginsToSkipWaits) {
  TestClock clock;
  std::thread thread(GetParam().wait);
  EXPECT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  const SkippedWaits skipped(clock);
  thread.join();
  EXPECT_EQ(clock.passed(), 1s);
}

TEST(TestClockTest, EveryClockStandsStillAndMovesWithTheOthers) {
  TestClock clock;
  const auto steady = Steady::now();
  const auto wall = Wall::now();
  timeval day{};
  ::gettimeofday(&day, nullptr);
  timespec monotonic{};
  ::clock_gettime(CLOCK_MONOTONIC, &monotonic);
  EXPECT_EQ(Steady::now(), steady);
  EXPECT_EQ(Wall::now(), wall);
  clock.advance(90s);
  EXPECT_EQ(Steady::now() - steady, 90s);
  EXPECT_EQ(Wall::now() - wall, 90s);
  timeval laterDay{};
  ::gettimeofday(&laterDay, nullptr);
  EXPECT_EQ(laterDay.tv_sec - day.tv_sec, 90);
  timespec laterMonotonic{};
  ::clock_gettime(CLOCK_MONOTONIC, &laterMonotonic);
  EXPECT_EQ(laterMonotonic.tv_sec - monotonic.tv_sec, 90);
  EXPECT_EQ(clock.passed(), 90s);
}

TEST(TestClockTest, SettingTheWallClockLeavesTheSteadyOneAlone) {
  TestClock clock;
  const auto steady = Steady::now();
  clock.advance(1s);
  clock.setWallTime(Wall::time_point(1000s));
  EXPECT_EQ(Wall::now(), Wall::time_point(1000s));
  clock.advance(1s);
  EXPECT_EQ(Wall::now(), Wall::time_point(1001s));
  EXPECT_EQ(Steady::now() - steady, 2s);
}

TEST(TestClockTest, WithoutItTheTimeIsReal) {
  const auto before = Steady::now();
  {
    TestClock clock;
    clock.advance(std::chrono::hours(1));
    const RealTime realTime;
    EXPECT_LT(Steady::now() - before, 30min);
    EXPECT_TRUE(waitFor([&] { return Steady::now() > before; }));
  }
  EXPECT_LT(Steady::now() - before, 30min);
}

TEST(TestClockTest, ArrivingDataEndsTheWaitOfASelect) {
  TestClock clock;
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::future<int> wait = std::async(std::launch::async, [&] {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(ends[0], &set);
    timeval time{10, 0};
    const int count = ::select(ends[0] + 1, &set, nullptr, nullptr, &time);
    EXPECT_TRUE(FD_ISSET(ends[0], &set));
    EXPECT_EQ(time.tv_sec, 7);  // the remaining time
    return count;
  });
  EXPECT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  clock.advance(3s);
  EXPECT_EQ(::write(ends[1], "x", 1), 1);
  ASSERT_EQ(wait.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(wait.get(), 1);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(TestClockTest, ASignalEndsAWaitOnACondition) {
  TestClock clock;
  std::mutex mutex;
  std::condition_variable condition;
  bool isSet = false;
  std::future<bool> wait = std::async(std::launch::async, [&] {
    std::unique_lock lock(mutex);
    return condition.wait_for(lock, 10s, [&] { return isSet; });
  });
  EXPECT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  {
    const std::lock_guard guard(mutex);
    isSet = true;
  }
  condition.notify_one();
  ASSERT_EQ(wait.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(wait.get());
  EXPECT_EQ(clock.passed(), 0s);
}

TEST(TestClockTest, ALimitBeyondAnyLifetimeStillCountsAsALimit) {
  TestClock clock;
  const SkippedWaits skipped(clock);
  timeval time{std::numeric_limits<time_t>::max(), 0};
  EXPECT_EQ(::select(0, nullptr, nullptr, nullptr, &time), 0);
  EXPECT_GT(clock.passed(), std::chrono::hours(24 * 365 * 60));
}

}  // namespace
