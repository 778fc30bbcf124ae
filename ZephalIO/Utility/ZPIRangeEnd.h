// Where a range ends.
#pragma once

#include <cstddef>

#include "Utility/ZPKTypes.h"

/// The end of a range that lies in memory. A range has 64 bits on every system, for the sake of the
/// not-found mark; a size in memory has those that the system gives it.
inline size_t ZPIRangeEnd(const ZPKRange& range) {
  return static_cast<size_t>(range.location + range.length);
}
