#include "Models/TextModel.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace {

// The length of the character that begins with this byte; 0 if none does.
size_t lengthFrom(uint8_t first) {
  if (first < 0x80) return 1;
  if (first >= 0xC0 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  return first >= 0xF0 && first < 0xF8 ? 4 : 0;
}

bool isPlain(char byte) { return byte == '\n' || byte == '\r' || (byte >= ' ' && byte <= '~'); }

}  // namespace

std::optional<std::u32string> decodedUTF8(std::string_view bytes) {
  std::u32string text;
  while (!bytes.empty()) {
    const auto first = static_cast<uint8_t>(bytes.front());
    const size_t length = lengthFrom(first);
    if (length == 0 || length > bytes.size()) return std::nullopt;
    char32_t point = length == 1 ? first : first & (0x7FU >> length);
    for (const char next : bytes.substr(1, length - 1)) {
      if ((next & 0xC0) != 0x80) return std::nullopt;
      point = point << 6 | (next & 0x3F);
    }
    const bool isSurrogate = point >= 0xD800 && point < 0xE000;
    text += point;
    const std::u32string_view last(&text.back(), 1);
    if (isSurrogate || point > 0x10FFFF || encodedUTF8(last).size() != length) return std::nullopt;
    bytes.remove_prefix(length);
  }
  return text;
}

std::string encodedUTF8(std::u32string_view text) {
  std::string bytes;
  for (const char32_t point : text) {
    if (point < 0x80) {
      bytes += static_cast<char>(point);
      continue;
    }
    const int followers = point < 0x800 ? 1 : (point < 0x10000 ? 2 : 3);
    bytes += static_cast<char>(0xFF << (7 - followers) | static_cast<int>(point >> 6 * followers));
    for (int i = followers - 1; i >= 0; --i) {
      bytes += static_cast<char>(0x80 | (point >> (6 * i) & 0x3F));
    }
  }
  return bytes;
}

std::string readableText(std::string_view bytes) {
  if (decodedUTF8(bytes).has_value()) return std::string(bytes);
  std::string text;
  for (size_t at = 0; at < bytes.size();) {
    if (isPlain(bytes[at])) {
      text += bytes[at++];
      continue;
    }
    text += '<';
    for (; at < bytes.size() && !isPlain(bytes[at]); ++at) text += hexOf(bytes[at]);
    text += '>';
  }
  return text;
}

std::string hexOf(char byte) {
  char digits[3] = {};
  std::snprintf(digits, sizeof digits, "%02x", static_cast<uint8_t>(byte));
  return digits;
}

std::string replacedAll(std::string text, std::string_view part, std::string_view replacement) {
  size_t at = text.find(part);
  while (at != std::string::npos) {
    text.replace(at, part.size(), replacement);
    at = text.find(part, at + replacement.size());
  }
  return text;
}
