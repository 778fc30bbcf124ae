// The size in front of a packet, a big-endian number.
#pragma once

#include <cstdint>

/// The largest width of a size field in bytes: a size is a 64-bit number.
inline constexpr int32_t kZPIWidestSizeField = sizeof(uint64_t);

/// Whether a size field can have `width` bytes.
inline bool ZPIIsSizeFieldWidth(int32_t width) {
  return width >= 1 && width <= kZPIWidestSizeField;
}
