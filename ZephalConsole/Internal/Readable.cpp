#include "ZephalConsole/Internal/Readable.h"

#include <array>
#include <cstdio>

namespace zephal::internal {
namespace {

constexpr size_t kShown = 200;

void appendVisible(std::string& line, char byte) {
  switch (byte) {
    case '\n': line += "\\n"; return;
    case '\r': line += "\\r"; return;
    case '\t': line += "\\t"; return;
    default: break;
  }
  if (byte >= ' ' && byte <= '~') {
    line += byte;
    return;
  }
  std::array<char, 8> escaped{};
  std::snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned char>(byte));
  line += escaped.data();
}

void appendEscaped(std::string& line, char byte) {
  if (byte == '\\' || byte == '"') line += '\\';
  appendVisible(line, byte);
}

}  // namespace

std::string readablePattern(std::string_view source) {
  std::string line;
  for (const char byte : source) appendVisible(line, byte);
  return line;
}

std::string readableEnd(std::string_view text) {
  if (text.empty()) return "nothing";
  std::string line;
  if (text.size() > kShown) {
    line = "... ";
    text.remove_prefix(text.size() - kShown);
  }
  line += '"';
  for (const char byte : text) appendEscaped(line, byte);
  return line + '"';
}

}  // namespace zephal::internal
