#include "Soak/StreamChecker.h"

#include <algorithm>

namespace soak {

namespace {

// So many bytes without a token are given up.
constexpr size_t kMostJunk = 4096;
constexpr size_t kEvidence = 160;

}  // namespace

Damage& Damage::operator+=(const Damage& other) {
  lost += other.lost;
  doubled += other.doubled;
  foreign += other.foreign;
  return *this;
}

StreamChecker::StreamChecker(int device, bool isOfCommands, bool hasLineFeeds)
    : _device(device), _isOfCommands(isOfCommands), _hasLineFeeds(hasLineFeeds) {}

void StreamChecker::startConnection() {
  _isConnectionDue = true;
  drop(_buffer.size());
}

void StreamChecker::feed(std::string_view bytes) {
  _bytes += bytes.size();
  _buffer += bytes;
  while (takeOne()) {
  }
  drop(_head);
}

void StreamChecker::finish(bool wasCut) {
  if (_buffer.empty()) return;
  NoToken why{};
  const bool isPart = !tokenAt(_buffer, _hasLineFeeds, &why) && why == NoToken::kTooShort;
  if (!wasCut || !isPart) {
    note("at the end");
    _damage.foreign += _buffer.size();
  }
  drop(_buffer.size());
}

// Whether something was taken off the buffer.
bool StreamChecker::takeOne() {
  NoToken why{};
  if (const auto token = tokenAt(rest(), _hasLineFeeds, &why)) {
    take(*token, "");
    _head += token->length;
    return true;
  }
  if (why == NoToken::kTooShort) return false;
  const size_t junk = firstTokenAfterJunk();
  if (junk == 0) return false;
  note("in the middle");
  if (const auto token = tokenAt(rest().substr(junk), _hasLineFeeds, &why)) {
    take(*token, rest().substr(0, junk));
    _head += token->length;
  } else {
    _damage.foreign += junk;
  }
  _head += junk;
  return true;
}

// 0: more bytes are needed to tell.
size_t StreamChecker::firstTokenAfterJunk() const {
  NoToken why{};
  const std::string_view text = rest();
  for (size_t at = 1; at < text.size(); ++at) {
    // One too many digits make a token of another device.
    const auto token = tokenAt(text.substr(at), _hasLineFeeds, &why);
    if (token.has_value() && token->device == _device) return at;
  }
  return text.size() > kMostJunk ? text.size() : 0;
}

void StreamChecker::take(const Token& token, std::string_view junk) {
  _last = token;
  const bool isCommand = token.kind == Token::Kind::kCommand;
  if (token.device != _device || (isCommand != _isOfCommands && !_hasEchoes)) {
    note("of another device");
    _damage.foreign += token.length + junk.size();
    return;
  }
  if (isCommand != _isOfCommands) {
    _damage.foreign += junk.size();
    return;
  }
  if (token.kind == Token::Kind::kPrompt) ++_prompts;
  if (_isConnectionDue && token.connection > _connection) {
    _isConnectionDue = false;
    _connection = token.connection;
    _next = 0;
  }
  if (_isConnectionDue || token.connection != _connection) {
    note("of another connection");
    _damage.foreign += token.length + junk.size();
    return;
  }
  compareNumbers(token, junk);
  _next = token.number + 1;
}

void StreamChecker::compareNumbers(const Token& token, std::string_view junk) {
  const uint64_t length = textOf(token).size() - (token.length < textOf(token).size() ? 1 : 0);
  if (token.number < _next) {
    note("came again");
    _damage.doubled += (_next - token.number) * length + junk.size();
    return;
  }
  const uint64_t missing = (token.number - _next) * length;
  if (missing > 0) note("missing");
  if (junk.size() < missing) _damage.lost += missing - junk.size();
  if (junk.size() > missing) _damage.doubled += junk.size() - missing;
  if (junk.size() == missing && missing > 0) ++_damage.foreign;
}

// Not by an assignment, which would keep the room of a flood.
void StreamChecker::drop(size_t count) {
  std::string(_buffer, count).swap(_buffer);
  _head = 0;
}

void StreamChecker::note(std::string_view what) {
  if (!_evidence.empty()) return;
  _evidence = std::string(what) + ", due " + std::to_string(_connection) + "." +
              std::to_string(_next) + ": " + std::string(rest().substr(0, kEvidence));
  std::replace(_evidence.begin(), _evidence.end(), '\n', '|');
}

}  // namespace soak
