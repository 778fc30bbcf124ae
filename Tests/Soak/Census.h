#pragma once

#include <cstddef>
#include <string>

namespace soak {

/// What the station's process has at a moment at which every stack is closed and gone.
struct Census {
  double seconds = 0;
  size_t residentKiB = 0;
  size_t heapBytes = 0;
  size_t threads = 0;
  size_t descriptors = 0;

  /// Counts now, `seconds` after the beginning.
  static Census take(double seconds);
};

}  // namespace soak
