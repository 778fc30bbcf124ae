#include "Utility/ZPIText.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kWord = sizeof(uint64_t);
constexpr uint64_t kHighBits = 0x8080808080808080ULL;
constexpr uint64_t kLowBits = kHighBits >> 7;

template <class Word>
Word load(const char* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

bool isASCII(char byte) { return static_cast<uint8_t>(byte) < 0x80; }

// Whether a text of 1 to 7 bytes is ASCII. Overlapping loads take fewer steps than a loop.
bool isShortASCII(std::string_view text) {
  const char* const end = text.data() + text.size();
  if (text.size() < sizeof(uint32_t)) {
    return isASCII(static_cast<char>(text.front() | text[text.size() / 2] | text.back()));
  }
  return ((load<uint32_t>(text.data()) | load<uint32_t>(end - sizeof(uint32_t))) & kHighBits) == 0;
}

// Whether the bytes of `text` from `at` on, which are fewer than a word, are ASCII. Those before
// `at` are.
bool endsInASCII(std::string_view text, size_t at) {
  if (at == text.size()) return true;
  if (text.size() < kWord) return isShortASCII(text);
  // The last word of the text; its bytes before `at` are ASCII.
  return (load<uint64_t>(text.data() + text.size() - kWord) & kHighBits) == 0;
}

// The number of ASCII bytes at the start of `text`.
size_t asciiLength(std::string_view text) {
  constexpr size_t kBlock = 4 * kWord;
  size_t at = 0;
  for (; text.size() - at >= kBlock; at += kBlock) {
    const char* const block = text.data() + at;
    const uint64_t first = load<uint64_t>(block) | load<uint64_t>(block + kWord);
    const uint64_t second = load<uint64_t>(block + 2 * kWord) | load<uint64_t>(block + 3 * kWord);
    if (((first | second) & kHighBits) != 0) break;
  }
  for (; text.size() - at >= kWord; at += kWord) {
    if ((load<uint64_t>(text.data() + at) & kHighBits) != 0) break;
  }
  if (text.size() - at < kWord && endsInASCII(text, at)) return text.size();
  while (isASCII(text[at])) ++at;  // ends: there is a byte that is not ASCII
  return at;
}

// The number of bytes in a word that continue a code point: their two high bits are 10. The product
// has the sum of all bytes in its highest byte.
size_t continuationBytes(uint64_t word) {
  const uint64_t oneEach = (word >> 7) & ~(word >> 6) & kLowBits;
  return static_cast<size_t>(oneEach * kLowBits >> 56);
}

// The length of the well-formed sequence of two or more bytes at the start of `text` (RFC 3629,
// section 4); 0 if there is none.
size_t sequenceLength(std::string_view text) {
  const auto byteAt = [text](size_t index) { return static_cast<uint8_t>(text[index]); };
  const uint8_t lead = byteAt(0);
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!ZPIIsContinuationByte(text[i])) return 0;
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
    const size_t length = isASCII(text[0]) ? asciiLength(text) : sequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

size_t ZPICodePointCount(std::string_view text) {
  size_t count = text.size();
  for (; text.size() >= kWord; text.remove_prefix(kWord)) {
    count -= continuationBytes(load<uint64_t>(text.data()));
  }
  for (const char byte : text) count -= ZPIIsContinuationByte(byte) ? 1 : 0;
  return count;
}

size_t ZPIByteOffsetOfCodePoint(std::string_view text, uint64_t index) {
  size_t at = 0;
  for (; text.size() - at >= kWord; at += kWord) {
    const size_t starts = kWord - continuationBytes(load<uint64_t>(text.data() + at));
    if (index < starts) break;
    index -= starts;
  }
  for (; at < text.size(); ++at) {
    if (ZPIIsContinuationByte(text[at])) continue;
    if (index == 0) return at;
    --index;
  }
  return at;
}

std::string_view ZPITextInRange(std::string_view text, ZPKRange range) {
  text.remove_prefix(ZPIByteOffsetOfCodePoint(text, range.location));
  return text.substr(0, ZPIByteOffsetOfCodePoint(text, range.length));
}
