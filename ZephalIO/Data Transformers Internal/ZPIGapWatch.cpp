#include "Data Transformers Internal/ZPIGapWatch.h"

#include <utility>

ZPIGapWatch::ZPIGapWatch(double timeout, std::function<void()> blk)
    : _timeout(timeout), _blk(std::move(blk)) {}

void ZPIGapWatch::noteCall() {
  const auto now = std::chrono::steady_clock::now();
  const std::chrono::duration<double> elapsed = now - _lastTime.value_or(now);
  if (elapsed.count() >= _timeout) {
    _lastTime.reset();
    _blk();
    return;
  }
  _lastTime = now;
}
