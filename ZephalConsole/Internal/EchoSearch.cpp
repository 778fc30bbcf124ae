#include "ZephalConsole/Internal/EchoSearch.h"

#include <algorithm>
#include <vector>

namespace zephal::internal {
namespace {

// How many characters of the command may have been echoed so far: the numbers that are possible.
using Positions = std::vector<size_t>;

class Reader {
 public:
  Reader(std::string_view text, std::string_view command) : _text(text), _command(command) {}

  Echo read() {
    // What is longer is no echo, whatever an unfriendly device makes it look like.
    const size_t longest = std::min(_text.size(), 4 * _command.size() + 1024);
    for (size_t at = 0; at < longest; ++at) {
      if (_text[at] == '\n' && isComplete()) return {Echo::State::kFound, at + 1};
      step(at);
      if (_positions.empty()) return {};
    }
    return {longest < _text.size() ? Echo::State::kNone : Echo::State::kUndecided, 0};
  }

 private:
  bool isComplete() const {
    return std::find(_positions.begin(), _positions.end(), _command.size()) != _positions.end();
  }

  void step(size_t at) {
    const char byte = _text[at];
    const bool isRedrawn = at > 0 && (_text[at - 1] == '\r' || _text[at - 1] == '\b');
    Positions next;
    for (const size_t position : _positions) {
      if (position < _command.size() && byte == _command[position]) next.push_back(position + 1);
      if (isMargin(at, position)) next.push_back(position);
    }
    if (isRedrawn) addRedrawn(byte, next);
    std::sort(next.begin(), next.end());
    next.erase(std::unique(next.begin(), next.end()), next.end());
    _positions = std::move(next);
  }

  // Whether the byte belongs to the margin and not to the command.
  bool isMargin(size_t at, size_t position) const {
    const bool isLast = at + 1 == _text.size();
    switch (_text[at]) {
      case '\r': return position > 0 || isLast || _text[at + 1] == '<' || _text[at + 1] == '\n';
      case '\n':
      case '\b': return position > 0;
      case ' ': return position > 0 && (isLast || _text[at + 1] == '\r');
      default: return false;
    }
  }

  // After a carriage return, the line or a part of it is shown once more.
  void addRedrawn(char byte, Positions& next) const {
    if (byte == '<') {
      for (size_t position = 0; position <= _command.size(); ++position) next.push_back(position);
      return;
    }
    const size_t shown = _positions.back();
    for (size_t position = 0; position < shown; ++position) {
      if (_command[position] == byte) next.push_back(position + 1);
    }
  }

  const std::string_view _text;
  const std::string_view _command;
  Positions _positions{0};
};

}  // namespace

Echo echoAt(std::string_view text, std::string_view command) {
  return Reader(text, command).read();
}

}  // namespace zephal::internal
