#include "Stress/NumberedBytes.h"

#include <array>
#include <cstdio>

#include "Stress/Verdict.h"

namespace support {

std::string NumberedBytes::take(size_t count) {
  std::string bytes;
  bytes.reserve(count + 2 * kLineLength);
  for (size_t line = _count / kLineLength; bytes.size() < count + kLineLength; ++line) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%c%09zu\n", _kind, line);
    bytes += text.data();
  }
  bytes = bytes.substr(_count % kLineLength, count);
  _count += count;
  return bytes;
}

void NumberedBytes::expect(std::string_view bytes, const char* where) {
  const size_t place = _count;
  const std::string expected = take(bytes.size());
  if (bytes == expected) return;
  size_t at = 0;
  while (bytes[at] == expected[at]) ++at;
  require(false, std::string(where) + ": at byte " + std::to_string(place + at) + " \"" +
                     std::string(bytes.substr(at, 60)) + "\" instead of \"" +
                     expected.substr(at, 60) + "\"");
}

}  // namespace support
