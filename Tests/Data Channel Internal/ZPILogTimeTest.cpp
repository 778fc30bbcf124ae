#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <optional>
#include <string>
#include <utility>

#include "Data Channel Internal/ZPILogTime.h"
#include "Support/EventWait.h"
#include "Support/ProcessThreads.h"
#include "Support/SystemCalls.h"
#include "Support/TestClock.h"

using namespace support;

namespace {

using testing::MatchesRegex;

// Sets the time zone of the process during its lifetime.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    if (const char* before = std::getenv("TZ")) _before = before;
    set(zone);
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() {
    if (_before.has_value()) {
      set(_before->c_str());
    } else {
      ::unsetenv("TZ");
    }
  }

  void set(const char* zone) { ::setenv("TZ", zone, 1); }

 private:
  std::optional<std::string> _before;
};

// 2024-05-01 at noon, plus this many microseconds.
std::chrono::system_clock::time_point noonAnd(int64_t microseconds) {
  constexpr std::chrono::seconds kNoon{1714564800};
  return std::chrono::system_clock::time_point(kNoon + std::chrono::microseconds(microseconds));
}

std::chrono::system_clock::time_point wallTime(int64_t milliseconds) {
  return std::chrono::system_clock::time_point(std::chrono::milliseconds(milliseconds));
}

// The present time as it stands in a log.
std::string timeNow() { return std::string(ZPILogTime().text().substr(1, 23)); }

TEST(ZPILogTimeTest, HasTheFormOfTheLog) {
  EXPECT_THAT(std::string(ZPILogTime().text()),
              MatchesRegex("\n[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} <"));
}

TEST(ZPILogTimeTest, KeepsItsTime) {
  const TimeZone zone("UTC0");
  TestClock clock;
  clock.setWallTime(noonAnd(0));
  const ZPILogTime time;
  clock.advance(std::chrono::seconds(2));
  EXPECT_EQ(time.text(), "\n2024-05-01 12:00:00.000 <");
}
TEST(ZPILogTimeTest, ShowsTheCurrentTimeInWholeMilliseconds) {
  const TimeZone zone("UTC0");
  TestClock clock;
  clock.setWallTime(noonAnd(45999));
  EXPECT_EQ(timeNow(), "2024-05-01 12:00:00.045");
  clock.advance(std::chrono::microseconds(1));
  EXPECT_EQ(timeNow(), "2024-05-01 12:00:00.046");
  clock.advance(std::chrono::hours(12));
  EXPECT_EQ(timeNow(), "2024-05-02 00:00:00.046");
}

TEST(ZPILogTimeTest, ShowsTheLocalTime) {
  const TimeZone zone("AAA-05:30");
  TestClock clock;
  clock.setWallTime(noonAnd(1000));
  // A new thread, which has not cached a second from a different zone.
  std::async(std::launch::async, [] { EXPECT_EQ(timeNow(), "2024-05-01 17:30:00.001"); }).get();
}

TEST(ZPILogTimeTest, AChangedTimeZoneAppliesFromTheNextSecond) {
  TimeZone zone("UTC0");
  TestClock clock;
  clock.setWallTime(noonAnd(10999000));
  EXPECT_EQ(timeNow(), "2024-05-01 12:00:10.999");
  zone.set("AAA-9");
  EXPECT_EQ(timeNow(), "2024-05-01 12:00:10.999");
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(timeNow(), "2024-05-01 21:00:11.000");
}

// A log that runs for months.
TEST(ZPILogTimeTest, SummerTimeBeginsAndEndsWithTheSecond) {
  const TimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  TestClock clock;
  clock.setWallTime(wallTime(1711846799999));
  EXPECT_EQ(timeNow(), "2024-03-31 01:59:59.999");
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(timeNow(), "2024-03-31 03:00:00.000");
  clock.setWallTime(wallTime(1729990799999));
  EXPECT_EQ(timeNow(), "2024-10-27 02:59:59.999");
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(timeNow(), "2024-10-27 02:00:00.000");
}

TEST(ZPILogTimeTest, ShowsTheSecondsBeforeAndAfterTheEndOf32Bits) {
  const TimeZone zone("UTC0");
  TestClock clock;
  clock.setWallTime(wallTime(2147483647999));
  EXPECT_EQ(timeNow(), "2038-01-19 03:14:07.999");
  if (sizeof(time_t) == sizeof(int32_t)) return;  // this system's own clock ends here
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(timeNow(), "2038-01-19 03:14:08.000");
}

// Otherwise the child inherits the locks of the time zone without the thread that releases them.
TEST(ZPILogTimeTest, AForkWaitsUntilNoThreadUsesTheTimeZone) {
  const pid_t forkingThread = ::gettid();
  std::atomic<bool> isUsed{false};
  std::atomic<bool> isForking{false};
  std::atomic<bool> hasForked{false};
  SystemCalls calls(SystemCalls::Threads::kAll);
  calls.before("tzset", [&] {
    isUsed = true;
    waitFor([&] { return hasForked || (isForking && isThreadAsleep(forkingThread)); });
    EXPECT_FALSE(hasForked);
  });
  auto other = std::async(std::launch::async, timeNow);
  ASSERT_TRUE(waitFor([&] { return isUsed.load(); }));
  isForking = true;
  const pid_t child = ::fork();
  if (child == 0) ::raise(SIGKILL);  // to _exit, ThreadSanitizer would report the other thread
  hasForked = true;
  EXPECT_EQ(other.get().size(), 23U);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST(ZPILogTimeTest, NeverGoesBackWithinOneThread) {
  const TimeZone zone("UTC0");
  std::string last = timeNow();
  for (int i = 0; i < 10000; ++i) {
    std::string next = timeNow();
    ASSERT_LE(last, next);
    last = std::move(next);
  }
}

}  // namespace
