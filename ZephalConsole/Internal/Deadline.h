#pragma once

#include <algorithm>
#include <chrono>

namespace zephal::internal {

/// When an operation must be over, by a clock that nobody sets.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;

  /// Negative lengths count as 0; lengths beyond ten years as ten years.
  static Deadline after(Seconds length) {
    constexpr Seconds kLongest = std::chrono::hours(24 * 3650);
    const Seconds bounded = std::min(std::max(length, Seconds(0)), kLongest);
    return Deadline(Clock::now() + std::chrono::duration_cast<Clock::duration>(bounded));
  }
  explicit Deadline(Clock::time_point time) : _time(time) {}

  Clock::time_point time() const { return _time; }
  bool hasPassed() const { return Clock::now() >= _time; }
  Seconds left() const { return std::max(Seconds(0), Seconds(_time - Clock::now())); }
  /// What is left in milliseconds, rounded up, for poll(2).
  int milliseconds() const;

 private:
  Clock::time_point _time;
};

}  // namespace zephal::internal
