#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "ZephalConsole/Internal/Deadline.h"

namespace zephal::internal {

/// What ends the operations of a console from outside, counted, so that each notices only what came
/// after its start.
struct Interventions {
  std::atomic<uint64_t> cancels{0};
  std::atomic<uint64_t> closes{0};
  /// ConsoleOptions::isInterrupted.
  std::function<bool()> isInterrupted = {};
};

/// What ends an operation before its result: its time limit, and a cancel or a close after its
/// start.
class Stop {
 public:
  Stop(Deadline deadline, const Interventions& interventions)
      : _deadline(deadline),
        _interventions(interventions),
        _cancelsSeen(interventions.cancels.load()),
        _closesSeen(interventions.closes.load()) {}
  Stop(const Stop&) = default;

  const Deadline& deadline() const { return _deadline; }
  bool isCancelled() const { return _interventions.cancels.load() != _cancelsSeen; }
  bool isClosed() const { return _interventions.closes.load() != _closesSeen; }
  /// Whether anything but the time limit ends the operation. It asks the caller's function, so no
  /// lock may be held.
  bool isOver() const {
    return isCancelled() || isClosed() ||
           (_interventions.isInterrupted && _interventions.isInterrupted());
  }
  /// Until when to wait before asking isOver again, if nothing wakes the thread: the caller's
  /// function is asked ten times a second.
  Deadline slice() const { return slice(_deadline); }
  Deadline slice(Deadline until) const {
    constexpr std::chrono::milliseconds kSlice(100);
    if (!_interventions.isInterrupted) return until;
    return Deadline(std::min(until.time(), Deadline::after(kSlice).time()));
  }
  /// The same, with another time limit.
  Stop until(Deadline deadline) const {
    Stop other(*this);
    other._deadline = deadline;
    return other;
  }

 private:
  Deadline _deadline;
  const Interventions& _interventions;
  uint64_t _cancelsSeen;
  uint64_t _closesSeen;
};

}  // namespace zephal::internal
