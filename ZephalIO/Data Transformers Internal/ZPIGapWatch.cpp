#include "Data Transformers Internal/ZPIGapWatch.h"

#include <utility>

ZPIGapWatch::ZPIGapWatch(double timeout, std::function<void()> blk, Clock clock)
    : _timeout(timeout), _blk(std::move(blk)), _clock(std::move(clock)) {}

void ZPIGapWatch::noteCall() {
  const TimePoint now = _clock();
  const std::chrono::duration<double> elapsed = now - _lastTime.value_or(now);
  if (elapsed.count() >= _timeout) {
    _lastTime.reset();
    _blk();
    return;
  }
  _lastTime = now;
}
