#pragma once

#include <cstddef>

/// Counts what this process allocates with operator new, which it replaces. One thread at a time.
class PeakMemory {
 public:
  /// Begins to measure.
  PeakMemory();
  /// The most bytes that were allocated at one time since then, beyond what was allocated before.
  size_t peak() const;

 private:
  const size_t _start;
};
