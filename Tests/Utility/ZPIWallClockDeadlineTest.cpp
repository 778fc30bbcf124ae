#include <gtest/gtest.h>
#include <sys/time.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "Utility/ZPIWallClockDeadline.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Seconds from the last full second before `start`; small enough to be exact in a double.
double secondsAfter(const timeval& start, const timespec& time) {
  return static_cast<double>(time.tv_sec - start.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double secondsAfter(const timeval& start, const timeval& time) {
  return static_cast<double>(time.tv_sec - start.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Expects a deadline `seconds` after some moment during the call.
void expectDeadline(double timeout, double seconds) {
  timeval before{};
  timeval after{};
  ::gettimeofday(&before, nullptr);
  const timespec deadline = ZPIWallClockDeadline(timeout);
  ::gettimeofday(&after, nullptr);
  EXPECT_GE(deadline.tv_nsec, 0);
  EXPECT_LT(deadline.tv_nsec, 1000000000);
  constexpr double kRounding = 1e-6;
  EXPECT_GE(secondsAfter(before, deadline), secondsAfter(before, before) + seconds - kRounding);
  EXPECT_LE(secondsAfter(before, deadline), secondsAfter(before, after) + seconds + kRounding);
}

TEST(ZPIWallClockDeadlineTest, IsNowPlusTheTimeout) {
  expectDeadline(5.0, 5.0);
  expectDeadline(1.5, 1.5);
  expectDeadline(1.0 / 30.0, 1.0 / 30.0);
}

TEST(ZPIWallClockDeadlineTest, CarriesTheFractionIntoTheSeconds) {
  for (int round = 0; round < 1000; ++round) expectDeadline(0.999999, 0.999999);
}

TEST(ZPIWallClockDeadlineTest, IsNowWithoutTimeToWait) {
  expectDeadline(0.0, 0.0);
  expectDeadline(-0.0, 0.0);
  expectDeadline(-1.0, 0.0);
  expectDeadline(-0.5, 0.0);
  expectDeadline(-kInfinity, 0.0);
  expectDeadline(std::nan(""), 0.0);
}

TEST(ZPIWallClockDeadlineTest, IsFarAheadForATimeoutBeyondAnyClock) {
  // A 32-bit clock ends in 2038.
  constexpr int64_t kYear = 31556952;
  constexpr int64_t kFarAhead = sizeof(time_t) > 4 ? 1000 * kYear : kYear;
  for (const double timeout : {1e12, 1e18, 1e300, std::numeric_limits<double>::max(), kInfinity}) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    const timespec deadline = ZPIWallClockDeadline(timeout);
    EXPECT_GT(int64_t{deadline.tv_sec} - now.tv_sec, kFarAhead) << timeout;
    EXPECT_GE(deadline.tv_nsec, 0) << timeout;
    EXPECT_LT(deadline.tv_nsec, 1000000000) << timeout;
  }
}

}  // namespace
