#include "Utility/ZPIByteSearch.h"

#include <algorithm>
#include <cstring>

#include "Utility/ZPKTypes.h"

namespace {

// memchr needs a tenth of an instruction per byte and memmem eight, but with memchr every false
// start costs a new call. At about one false start in 32 bytes both cost the same; the slack keeps
// short buffers on memchr.
constexpr size_t kBytesPerFalseStart = 32;
constexpr size_t kSlackBytes = 256;

}  // namespace

uint64_t ZPIFindBytes(const uint8_t* bytes, size_t length, const uint8_t* needle,
                      size_t needleLength) {
  if (needleLength == 0 || needleLength > length) return ZPKNotFound;
  if (needleLength == 1) {
    const void* found = std::memchr(bytes, needle[0], length);
    if (found == nullptr) return ZPKNotFound;
    return static_cast<size_t>(static_cast<const uint8_t*>(found) - bytes);
  }
  const uint8_t* const lastStart = bytes + (length - needleLength);
  // A false start compares up to the whole needle, so a long needle is allowed fewer of them.
  const size_t bytesPerFalseStart = std::max(kBytesPerFalseStart, needleLength);
  const uint8_t* at = bytes;
  for (size_t falseStarts = 0; at <= lastStart; ++falseStarts, ++at) {
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
