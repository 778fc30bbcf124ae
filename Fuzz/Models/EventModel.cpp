#include "Models/EventModel.h"

#include <algorithm>

std::string EventModel::take(std::string_view chunk) {
  _held += chunk;
  _result.clear();
  size_t before = 0;
  do {
    before = _held.size();
    pass();
  } while (_held.size() != before);
  return _result;
}

void EventModel::pass() {
  const size_t at = _held.find(_pattern);
  if (_held.empty() || at == std::string::npos) return releaseAround();
  const size_t end = at + _pattern.size();
  _result += _held.substr(0, _removes ? at : end);
  _held.erase(0, end);
  _events.push_back(_result.size());
}

// Keeps only what begins the pattern. Each shorter beginning at the end is looked for as well, and
// releases what is in front of it, even if that continued a longer one.
void EventModel::releaseAround() {
  for (size_t i = std::min(_pattern.size(), _held.size()); i > 0; --i) {
    if (!_held.ends_with(_pattern.substr(0, i))) continue;
    if (i == _held.size()) break;
    _result += _held.substr(0, _held.size() - i);
    _held.erase(0, _held.size() - i);
  }
  if (_held.empty() || _pattern.starts_with(_held)) return;
  _result += _held;
  _held.clear();
}
