#pragma once

#include <atomic>
#include <cstdint>

#include "ZephalConsole/Internal/Deadline.h"

namespace zephal::internal {

/// What ends an operation before its result: its time limit, and a cancel after its start.
class Stop {
 public:
  Stop(Deadline deadline, const std::atomic<uint64_t>& cancels)
      : _deadline(deadline), _cancels(cancels), _seen(cancels.load()) {}
  Stop(const Stop&) = default;

  const Deadline& deadline() const { return _deadline; }
  bool isCancelled() const { return _cancels.load() != _seen; }
  /// The same cancels, another time limit.
  Stop until(Deadline deadline) const {
    Stop other(*this);
    other._deadline = deadline;
    return other;
  }

 private:
  Deadline _deadline;
  const std::atomic<uint64_t>& _cancels;
  uint64_t _seen;
};

}  // namespace zephal::internal
