// The one forward search for bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Utility/ZPKTypes.h"

/// ZPIFindBytes for a needle of any length but one.
uint64_t ZPIFindLongNeedle(const uint8_t* bytes, size_t length, const uint8_t* needle,
                           size_t needleLength);

/// The offset of the first `needle` in `bytes`; ZPKNotFound if there is none. An empty needle is
/// never found.
inline uint64_t ZPIFindBytes(const uint8_t* bytes, size_t length, const uint8_t* needle,
                             size_t needleLength) {
  if (needleLength != 1) return ZPIFindLongNeedle(bytes, length, needle, needleLength);
  if (length == 0) return ZPKNotFound;  // then there may be no bytes to point to
  const void* found = std::memchr(bytes, *needle, length);
  if (found == nullptr) return ZPKNotFound;
  return static_cast<size_t>(static_cast<const uint8_t*>(found) - bytes);
}
