#pragma once

#include <cstddef>
#include <functional>
#include <string>

/// Counts what a piece of work takes.
class Meter {
 public:
  /// Whether the instructions are counted: the program runs in callgrind.
  static bool isCounting();

  /// Does the work and returns by how many bytes the heap was larger at its peak than before; 0 in
  /// a sanitizer build, which has a heap of its own. Under callgrind, the instructions of all
  /// threads are written to a profile that has this name.
  static size_t heapPeakOf(const std::string& name, const std::function<void()>& work);
};
