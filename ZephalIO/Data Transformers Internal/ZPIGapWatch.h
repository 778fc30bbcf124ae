#pragma once

#include <chrono>
#include <functional>
#include <optional>

/// Measures the time between successive calls and runs a callback at the end of a long gap. There
/// is no timer: nothing happens during a gap. No lock.
class ZPIGapWatch final {
 public:
  /// `blk` runs at the end of every gap of `timeout` seconds or more; for a timeout that is not a
  /// number, never.
  ZPIGapWatch(double timeout, std::function<void()> blk);

  /// One call. The first never ends a gap, and neither does the first one after a gap: what is
  /// measured begins there.
  void noteCall();

 private:
  const double _timeout;
  const std::function<void()> _blk;
  std::optional<std::chrono::steady_clock::time_point> _lastTime;
};
