#include "Utility/ZPIText.h"

#include <cstdint>
#include <cstring>

namespace {

bool isContinuation(char byte) { return (static_cast<uint8_t>(byte) & 0xC0) == 0x80; }

// How many bytes at the start of `text` are ASCII, counted in whole blocks.
size_t asciiBlocks(std::string_view text) {
  constexpr size_t kBlock = 32;
  size_t at = 0;
  for (; text.size() - at >= kBlock; at += kBlock) {
    uint64_t words[kBlock / sizeof(uint64_t)];
    std::memcpy(words, text.data() + at, kBlock);
    if (((words[0] | words[1] | words[2] | words[3]) & 0x8080808080808080ULL) != 0) break;
  }
  return at;
}

// The length of the well-formed sequence at the start of `text` (RFC 3629, section 4), or 0.
size_t sequenceLength(std::string_view text) {
  const auto byteAt = [text](size_t index) { return static_cast<uint8_t>(text[index]); };
  const uint8_t lead = byteAt(0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!isContinuation(text[i])) return 0;
  }
  const uint8_t second = byteAt(1);
  if (lead == 0xE0 && second < 0xA0) return 0;  // overlong
  if (lead == 0xED && second > 0x9F) return 0;  // surrogate
  if (lead == 0xF0 && second < 0x90) return 0;  // overlong
  if (lead == 0xF4 && second > 0x8F) return 0;  // above U+10FFFF
  return length;
}

}  // namespace

bool ZPIIsValidUTF8(std::string_view text) {
  while (!text.empty()) {
    text.remove_prefix(asciiBlocks(text));
    if (text.empty()) return true;
    const size_t length = sequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

size_t ZPICodePointCount(std::string_view text) {
  size_t count = 0;
  for (const char byte : text) count += isContinuation(byte) ? 0 : 1;
  return count;
}

size_t ZPIByteOffsetOfCodePoint(std::string_view text, uint64_t index) {
  size_t at = 0;
  for (; at < text.size(); ++at) {
    if (isContinuation(text[at])) continue;
    if (index == 0) return at;
    --index;
  }
  return at;
}

std::string_view ZPITextInRange(std::string_view text, ZPKRange range) {
  text.remove_prefix(ZPIByteOffsetOfCodePoint(text, range.location));
  return text.substr(0, ZPIByteOffsetOfCodePoint(text, range.length));
}
