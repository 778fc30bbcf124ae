#pragma once

#include <chrono>
#include <functional>
#include <optional>

/// Measures the time between successive calls and runs a callback at the end of a long gap. There
/// is no timer: nothing happens during a gap. Not thread-safe.
class ZPIGapWatch final {
 public:
  /// `blk` runs at the end of every gap of `timeout` seconds or more. If the timeout is not a
  /// number, it never runs.
  ZPIGapWatch(double timeout, std::function<void()> blk);

  /// Notes a call. The first call never ends a gap, and neither does the first one after a gap:
  /// measuring starts with it.
  void noteCall();

 private:
  const double _timeout;
  const std::function<void()> _blk;
  std::optional<std::chrono::steady_clock::time_point> _lastTime;
};
