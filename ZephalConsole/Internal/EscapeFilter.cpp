#include "ZephalConsole/Internal/EscapeFilter.h"

#include <algorithm>

namespace zephal::internal {
namespace {

constexpr char kEscape = '\x1b';
constexpr char kBell = '\a';
constexpr char kCancel = '\x18';
constexpr char kSubstitute = '\x1a';
constexpr size_t kLongestControl = 64;
constexpr size_t kLongestString = 4096;

bool isWithin(char byte, char first, char last) { return byte >= first && byte <= last; }

}  // namespace

void EscapeFilter::filter(std::string_view bytes, std::string& text) {
  while (!bytes.empty()) {
    if (_state != State::kText) {
      step(bytes.front(), text);
      bytes.remove_prefix(1);
      continue;
    }
    const size_t count = std::min(bytes.find(kEscape), bytes.size());
    text.append(bytes.substr(0, count));
    bytes.remove_prefix(count);
    if (bytes.empty()) return;
    bytes.remove_prefix(1);
    _state = State::kEscape;
    _length = 0;
  }
}

void EscapeFilter::step(char byte, std::string& text) {
  ++_length;
  if (byte == kCancel || byte == kSubstitute) {
    _state = State::kText;
    return;
  }
  if (byte == kEscape) {  // begins a sequence, also within one
    _state = _state == State::kString ? State::kStringEscape : State::kEscape;
    _length = 0;
    return;
  }
  _state = next(byte, text);
}

EscapeFilter::State EscapeFilter::next(char byte, std::string& text) {
  switch (_state) {
    case State::kEscape: return afterEscape(byte);
    case State::kIntermediate:
      return isWithin(byte, ' ', '/') && _length < kLongestControl ? State::kIntermediate
                                                                   : State::kText;
    case State::kControl:
      // A line break within a control sequence acts as if it stood in front of it.
      if (byte == '\n' || byte == '\r') text += byte;
      return isWithin(byte, '@', '~') || _length >= kLongestControl ? State::kText
                                                                    : State::kControl;
    case State::kString:
      return byte == kBell || _length >= kLongestString ? State::kText : State::kString;
    case State::kStringEscape: return byte == '\\' ? State::kText : afterEscape(byte);
    case State::kText: break;
  }
  return State::kText;
}

EscapeFilter::State EscapeFilter::afterEscape(char byte) const {
  switch (byte) {
    case '[': return State::kControl;
    case ']':
    case 'P':
    case 'X':
    case '^':
    case '_': return State::kString;
    default: return isWithin(byte, ' ', '/') ? State::kIntermediate : State::kText;
  }
}

}  // namespace zephal::internal
