#include "ZephalConsole/Internal/TextSearch.h"

#include <algorithm>

namespace zephal::internal {
namespace {

bool isWithin(char byte, char first, char last) { return byte >= first && byte <= last; }

// How often consoles print a byte, roughly.
int frequencyOf(char byte) {
  if (byte == ' ' || byte == '\r' || byte == '\n') return 5;
  if (isWithin(byte, 'a', 'z')) return 4;
  if (isWithin(byte, '0', '9')) return 3;
  if (isWithin(byte, 'A', 'Z')) return 1;
  return isWithin(byte, '!', '~') ? 2 : 0;
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
  size_t rare = bytes.find(_text[_rare], from + _rare);
  for (; rare != std::string_view::npos; rare = bytes.find(_text[_rare], rare + 1)) {
    if (bytes[rare - _rare] == _text.front()) return rare - _rare;
  }
  const size_t unknown = bytes.size() - std::min(_rare, bytes.size());
  return std::min(bytes.find(_text.front(), std::max(from, unknown)), bytes.size());
}

}  // namespace zephal::internal
