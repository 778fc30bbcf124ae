// Where a range ends.
#pragma once

#include <cstddef>

#include "Utility/ZPKTypes.h"

/// The end of a range in memory. A range has 64 bits on every system, so that it can hold
/// ZPKNotFound; the size of something in memory fits a size_t.
inline size_t ZPIRangeEnd(const ZPKRange& range) {
  return static_cast<size_t>(range.location + range.length);
}
