#include "Utility/ZPIWallClockDeadline.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace {

// The longest finite timeout, some 30,000 years: with a longer one the arithmetic could overflow.
constexpr double kLongestTimeout = 1.0e12;
constexpr int64_t kNanosPerSecond = 1000000000;
constexpr auto kLastSecond = std::numeric_limits<time_t>::max();

}  // namespace

timespec ZPIWallClockDeadline(double timeout) {
  const double wait = timeout > 0.0 ? std::min(timeout, kLongestTimeout) : 0.0;
  const auto seconds = static_cast<int64_t>(wait);
  const auto fraction = static_cast<int64_t>((wait - static_cast<double>(seconds)) * 1.0e9);
  timeval now{};
  ::gettimeofday(&now, nullptr);
  const int64_t nanos = fraction + static_cast<int64_t>(now.tv_usec) * 1000;
  timespec deadline{};
  const int64_t end = seconds + now.tv_sec + nanos / kNanosPerSecond;
  // A 32-bit clock ends in 2038, and with it the longest wait.
  deadline.tv_sec = static_cast<time_t>(std::min<int64_t>(end, kLastSecond));
  deadline.tv_nsec = static_cast<long>(nanos % kNanosPerSecond);
  return deadline;
}
