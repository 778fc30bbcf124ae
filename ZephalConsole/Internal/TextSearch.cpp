#include "ZephalConsole/Internal/TextSearch.h"

namespace zephal::internal {

TextSearch::TextSearch(std::string_view text) : _text(text), _fallback(text.size() + 1, 0) {
  size_t matched = 0;
  for (size_t i = 1; i < _text.size(); ++i) {
    while (matched > 0 && _text[i] != _text[matched]) matched = _fallback[matched];
    if (_text[i] == _text[matched]) ++matched;
    _fallback[i + 1] = matched;
  }
}

size_t TextSearch::take(std::string_view bytes) {
  size_t at = 0;
  while (at < bytes.size() && !isFound()) {
    if (_matched == 0) {
      at = bytes.find(_text.front(), at);
      if (at == std::string_view::npos) return bytes.size();
    }
    while (_matched > 0 && bytes[at] != _text[_matched]) _matched = _fallback[_matched];
    if (bytes[at] == _text[_matched]) ++_matched;
    ++at;
  }
  return at;
}

}  // namespace zephal::internal
