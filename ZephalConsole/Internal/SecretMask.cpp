#include "ZephalConsole/Internal/SecretMask.h"

#include <algorithm>
#include <utility>

#include "ZephalConsole/Internal/EchoSearch.h"
#include "ZephalConsole/Internal/EscapeFilter.h"

namespace zephal::internal {
namespace {

constexpr std::string_view kMask = "***";

// After this much of a line there is no echo in it any more, and an echo has no more escape
// sequences than this, so that an unfriendly device cannot keep us looking for one.
constexpr size_t kMost = 4096;

size_t lengthOfLines(std::string_view bytes, size_t lines) {
  size_t length = 0;
  for (; lines > 0 && length < bytes.size(); --lines) length = bytes.find('\n', length) + 1;
  return length;
}

// The echo that the bytes begin with, without its line break.
Echo echoIn(std::string_view bytes, std::string_view secret) {
  EscapeFilter escapes;
  std::string text;
  escapes.filter(bytes, text);
  const Echo echo = echoAt(text, secret);
  // A device may also end a line with a carriage return only.
  const bool endsLine = bytes.starts_with(secret) && bytes.substr(secret.size()).starts_with('\r');
  if (echo.state == Echo::State::kNone && endsLine) return {Echo::State::kFound, secret.size()};
  if (echo.state != Echo::State::kFound) return echo;
  const auto lines = std::count(text.begin(), text.begin() + static_cast<long>(echo.length), '\n');
  size_t length = lengthOfLines(bytes, static_cast<size_t>(lines)) - 1;
  while (length > 0 && bytes[length - 1] == '\r') --length;
  return {Echo::State::kFound, length};
}

}  // namespace

void SecretMask::add(std::string_view secret) {
  while (!secret.empty()) {
    const size_t length = std::min(secret.find_first_of("\r\n"), secret.size());
    if (length > 0) _secrets.emplace_back(secret.substr(0, length));
    secret.remove_prefix(std::min(length + 1, secret.size()));
  }
}

void SecretMask::filter(std::string_view bytes, std::string& shown) {
  _held += bytes;
  size_t done = 0;
  while (!_secrets.empty() && done < _held.size()) {
    const size_t count = showSome(std::string_view(_held).substr(done), shown);
    if (count == 0) break;
    done += count;
    _lineLength += count;
    if (_lineLength > kMost && !_secrets.empty()) takeSecret();
  }
  if (_secrets.empty()) {
    shown += std::string_view(_held).substr(done);
    done = _held.size();
  }
  _held.erase(0, done);
}

// Shows the bytes up to an echo, or one echo, or the rest of the line, which takes the secret.
// Shows none if they may begin an echo.
size_t SecretMask::showSome(std::string_view bytes, std::string& shown) {
  const std::string& secret = _secrets.front();
  const size_t longest = 4 * secret.size() + kMost;
  bytes = bytes.substr(0, longest);
  const size_t end = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
  // A line editor that scrolls begins with a carriage return.
  const size_t begin = std::min({bytes.find(secret.front()), bytes.find('\r'), end});
  if (begin == end) {
    shown += bytes.substr(0, end);
    if (bytes[end - 1] == '\n') takeSecret();
    return end;
  }
  shown += bytes.substr(0, begin);
  const Echo echo = echoIn(bytes.substr(begin), secret);
  const bool mayGetLonger = begin > 0 || bytes.size() < longest;
  if (echo.state == Echo::State::kUndecided && mayGetLonger) return begin;
  const bool isEcho = echo.state == Echo::State::kFound;
  shown += isEcho ? kMask : bytes.substr(begin, 1);
  return begin + (isEcho ? echo.length : 1);
}

// The line has had its chance to be the echo of the first secret.
void SecretMask::takeSecret() {
  _secrets.pop_front();
  _lineLength = 0;
}

void SecretMask::flush(std::string& shown) {
  shown += holdsEcho() ? kMask : _held;
  _held.clear();
}

void SecretMask::reset() {
  _secrets.clear();
  _held.clear();
  _lineLength = 0;
}

}  // namespace zephal::internal
