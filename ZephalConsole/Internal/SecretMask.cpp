#include "ZephalConsole/Internal/SecretMask.h"

#include <algorithm>
#include <utility>

namespace zephal::internal {
namespace {

constexpr std::string_view kMask = "***";

// How many bytes at the end of the text begin the secret, or are the whole of it.
size_t beginningAtEnd(std::string_view secret, std::string_view text) {
  for (size_t count = std::min(secret.size(), text.size()); count > 0; --count) {
    if (text.ends_with(secret.substr(0, count))) return count;
  }
  return 0;
}

bool isLineBreak(char byte) { return byte == '\r' || byte == '\n'; }

// The line, with its line break, without the secrets that are followed by a line break.
std::string masked(std::string_view line, std::string_view secret) {
  std::string result;
  for (size_t at = line.find(secret); at != std::string_view::npos; at = line.find(secret)) {
    const size_t end = at + secret.size();
    const bool isEcho = end < line.size() && isLineBreak(line[end]);
    result += line.substr(0, at);
    result += isEcho ? kMask : secret.substr(0, 1);
    line.remove_prefix(isEcho ? end : at + 1);
  }
  return result += line;
}

}  // namespace

void SecretMask::add(std::string_view secret) {
  if (!secret.empty()) _secrets.emplace_back(secret);
}

void SecretMask::filter(std::string_view bytes, std::string& shown) {
  const std::string all = std::exchange(_held, {}).append(bytes);
  std::string_view rest = all;
  while (!_secrets.empty() && !rest.empty()) {
    const size_t lineFeed = rest.find('\n');
    if (lineFeed == std::string_view::npos) {
      holdBackEnd(rest, shown);
      return;
    }
    shown += masked(rest.substr(0, lineFeed + 1), _secrets.front());
    rest.remove_prefix(lineFeed + 1);
    _secrets.pop_front();
  }
  shown += rest;
}

// Shows a line that has not ended.
void SecretMask::holdBackEnd(std::string_view line, std::string& shown) {
  const size_t kept = beginningAtEnd(_secrets.front(), line);
  shown += masked(line.substr(0, line.size() - kept), _secrets.front());
  _held = line.substr(line.size() - kept);
}

void SecretMask::flush(std::string& shown) {
  const bool isEcho = !_secrets.empty() && _held == _secrets.front();
  shown += isEcho ? kMask : _held;
  _held.clear();
}

void SecretMask::reset() {
  _secrets.clear();
  _held.clear();
}

}  // namespace zephal::internal
