#include "ZephalConsole/Internal/TextSearch.h"

#include <algorithm>

namespace zephal::internal {
namespace {

bool isBetween(char byte, char first, char last) { return byte >= first && byte <= last; }

// How often consoles print a byte, roughly.
int frequencyOf(char byte) {
  if (byte == ' ' || byte == '\r' || byte == '\n') return 5;
  if (isBetween(byte, 'a', 'z')) return 4;
  if (isBetween(byte, '0', '9')) return 3;
  if (isBetween(byte, 'A', 'Z')) return 1;
  return isBetween(byte, '!', '~') ? 2 : 0;
}

constexpr size_t kBlock = 64;
// So many occurrences of a byte with less than a block between them make it a frequent one.
constexpr size_t kManyClose = 4;

// Compilers make vector instructions of this.
bool hasPair(const char* one, char oneByte, const char* other, char otherByte) {
  unsigned char found = 0;
  for (size_t i = 0; i < kBlock; ++i) {
    found |= static_cast<unsigned char>(one[i] == oneByte) &
             static_cast<unsigned char>(other[i] == otherByte);
  }
  return found != 0;
}

}  // namespace

TextSearch::TextSearch(std::string_view text) : _text(text), _fallback(text.size() + 1, 0) {
  size_t matched = 0;
  for (size_t i = 1; i < _text.size(); ++i) {
    while (matched > 0 && _text[i] != _text[matched]) matched = _fallback[matched];
    if (_text[i] == _text[matched]) ++matched;
    _fallback[i + 1] = matched;
  }
  const auto rarest = std::min_element(_text.begin(), _text.end(), [](char one, char other) {
    return frequencyOf(one) < frequencyOf(other);
  });
  _rare = static_cast<size_t>(rarest - _text.begin());
}

size_t TextSearch::take(std::string_view bytes) {
  size_t at = 0;
  while (at < bytes.size() && !isFound()) {
    if (_matched == 0) {
      at = nextBegin(bytes, at);
      if (at == bytes.size()) break;
    }
    while (_matched > 0 && bytes[at] != _text[_matched]) _matched = _fallback[_matched];
    if (bytes[at] == _text[_matched]) ++_matched;
    ++at;
  }
  return at;
}

// Where the text may begin next: where its first and its rarest byte are, or where its first byte
// is and the rarest one has not arrived yet.
size_t TextSearch::nextBegin(std::string_view bytes, size_t from) const {
  const size_t known = bytes.size() - std::min(_rare, bytes.size());
  const size_t begin = nextKnownBegin(bytes, from, known);
  if (begin < known) return begin;
  return std::min(bytes.find(_text.front(), std::max(from, known)), bytes.size());
}

size_t TextSearch::nextKnownBegin(std::string_view bytes, size_t at, size_t end) const {
  for (size_t close = 0; close < kManyClose;) {
    const size_t rare = bytes.find(_text[_rare], at + _rare);
    if (rare == std::string_view::npos) return end;
    const size_t begin = rare - _rare;
    if (bytes[begin] == _text.front()) return begin;
    if (begin - at < kBlock) ++close;
    at = begin + 1;
  }
  return nextPair(bytes, at, end);
}

// Looks for both bytes at the same time, in blocks: faster than to look for one that is frequent.
size_t TextSearch::nextPair(std::string_view bytes, size_t at, size_t end) const {
  const char* first = bytes.data();
  const char* rare = first + _rare;
  while (at < end) {
    const size_t length = std::min(kBlock, end - at);
    if (length < kBlock || hasPair(first + at, _text.front(), rare + at, _text[_rare])) {
      for (size_t i = at; i < at + length; ++i) {
        if (first[i] == _text.front() && rare[i] == _text[_rare]) return i;
      }
    }
    at += length;
  }
  return end;
}
}  // namespace zephal::internal
