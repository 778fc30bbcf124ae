#pragma once

#include <cstddef>

/// Counts what this process allocates with operator new, which it replaces. One thread at a time.
class PeakMemory {
 public:
  /// Starts measuring.
  PeakMemory();
  /// The most bytes that were allocated at one time since then, not counting earlier allocations.
  size_t peak() const;

 private:
  const size_t _start;
};
