#include "Utility/ZPIByteSearch.h"

#include <cstring>

namespace {

// memchr needs a tenth of an instruction per byte, but each false start costs some 60 and the
// comparison. memmem needs eight per byte for a needle of two bytes, and the fewer the longer the
// needle. Where there is one false start in so many lengths of the needle, both cost about the
// same. The slack keeps short buffers on memchr.
constexpr uint64_t kNeedlesPerFalseStart = 6;
constexpr uint64_t kSlackBytes = 256;

}  // namespace

uint64_t ZPIFindLongNeedle(const uint8_t* bytes, size_t length, const uint8_t* needle,
                           size_t needleLength) {
  if (needleLength == 0 || needleLength > length) return ZPKNotFound;
  const uint8_t* const lastStart = bytes + (length - needleLength);
  const uint64_t bytesPerFalseStart = kNeedlesPerFalseStart * needleLength;
  const uint8_t* at = bytes;
  for (uint64_t falseStarts = 0; at <= lastStart; ++falseStarts, ++at) {
    const size_t scanned = static_cast<size_t>(at - bytes);
    if (falseStarts * bytesPerFalseStart > scanned + kSlackBytes) break;
    at = static_cast<const uint8_t*>(
        std::memchr(at, needle[0], static_cast<size_t>(lastStart - at) + 1));
    if (at == nullptr) return ZPKNotFound;
    if (std::memcmp(at, needle, needleLength) == 0) return static_cast<size_t>(at - bytes);
  }
  if (at > lastStart) return ZPKNotFound;
  const void* found = ::memmem(at, length - static_cast<size_t>(at - bytes), needle, needleLength);
  if (found == nullptr) return ZPKNotFound;
  return static_cast<size_t>(static_cast<const uint8_t*>(found) - bytes);
}
