#include "ZephalConsole/Internal/EchoSearch.h"

#include <algorithm>
#include <bit>

namespace zephal::internal {
namespace {

constexpr size_t kBits = 64;

bool isControl(char byte) { return byte == '\r' || byte == '\n' || byte == '\b'; }

// The bits of the word with this index that stand for numbers below `limit`.
uint64_t bitsBelow(size_t limit, size_t word) {
  if (limit <= word * kBits) return 0;
  const size_t count = limit - word * kBits;
  return count >= kBits ? ~uint64_t{0} : (uint64_t{1} << count) - 1;
}

// Whether a byte may belong to the margin and not to the command: at the beginning of the command,
// and later.
struct Margin {
  bool atBegin = false;
  bool later = false;
};

Margin marginAt(std::string_view text, size_t at) {
  const bool isLast = at + 1 == text.size();
  switch (text[at]) {
    case '\r': return {isLast || text[at + 1] == '<' || text[at + 1] == '\n', true};
    case '\n':
    case '\b': return {false, true};
    case ' ': return {false, isLast || text[at + 1] == '\r'};
    default: return {};
  }
}

// After a carriage return, the line or a part of it may be shown once more.
bool mayBeRedrawn(std::string_view text, size_t at) {
  return at > 0 && (text[at - 1] == '\r' || text[at - 1] == '\b');
}

}  // namespace

EchoSearch::EchoSearch(std::string_view command) : _command(command) {}

Echo EchoSearch::look(std::string_view text) {
  if (_positions.empty()) {
    if (const std::optional<Echo> echo = lookPlainly(text)) return *echo;
    prepare();
  }
  // What is longer is no echo, whatever an unfriendly device makes it look like.
  const size_t longest = std::min(text.size(), 4 * _command.size() + 1024);
  for (; _at < longest; ++_at) {
    if (text[_at] == '\n' && isComplete()) return {Echo::State::kFound, _at + 1};
    if (_at + 1 == text.size()) break;  // what it is depends on the next byte
    if (!step(text, _at, &_positions)) return {};
  }
  if (longest < text.size()) return {};
  Positions last = _positions;
  const bool isPossible = _at == text.size() || step(text, _at, &last);
  return {isPossible ? Echo::State::kUndecided : Echo::State::kNone, 0};
}

// Nearly all echoes are the command itself, and what is no echo differs soon. Null if it takes more
// to decide.
std::optional<Echo> EchoSearch::lookPlainly(std::string_view text) {
  while (_at < text.size() && _at < _command.size() && text[_at] == _command[_at] &&
         !isControl(text[_at])) {
    ++_at;
  }
  if (_at == text.size()) return Echo{Echo::State::kUndecided, 0};
  const std::string_view rest = text.substr(_at);
  const bool isWhole = _at == _command.size();
  if (isWhole && rest.starts_with('\n')) return Echo{Echo::State::kFound, _at + 1};
  if (isWhole && rest.starts_with("\r\n")) return Echo{Echo::State::kFound, _at + 2};
  if (rest.front() == ' ' || isControl(rest.front())) return std::nullopt;
  return Echo();
}

// A blank that was taken for the command's may belong to the margin, so it is looked at once more.
void EchoSearch::prepare() {
  const size_t words = _command.size() / kBits + 1;
  _at -= std::min<size_t>(_at, 1);
  _positions.resize(words);
  _positions[_at / kBits] = Word{1} << (_at % kBits);
  _masks.resize(words);
  for (size_t i = 0; i < _command.size(); ++i) {
    uint32_t& mask = _maskOf[static_cast<unsigned char>(_command[i])];
    if (mask == 0) {
      mask = static_cast<uint32_t>(_masks.size());
      _masks.resize(_masks.size() + words);
    }
    _masks[mask + i / kBits] |= Word{1} << (i % kBits);
  }
}

bool EchoSearch::isComplete() const {
  return (_positions[_command.size() / kBits] >> (_command.size() % kBits) & 1) != 0;
}

size_t EchoSearch::mostShown() const {
  size_t word = _positions.size() - 1;
  while (_positions[word] == 0) --word;
  return word * kBits + static_cast<size_t>(std::bit_width(_positions[word])) - 1;
}

// The positions after one more byte; false if there are none.
bool EchoSearch::step(std::string_view text, size_t at, Positions* positions) const {
  const Word* const mask = &_masks[_maskOf[static_cast<unsigned char>(text[at])]];
  const Margin margin = marginAt(text, at);
  const bool isRedrawn = mayBeRedrawn(text, at);
  const size_t shown = isRedrawn ? mostShown() : 0;
  Word carry = 0;
  Word any = 0;
  for (size_t i = 0; i < positions->size(); ++i) {
    Word& word = (*positions)[i];
    Word kept = margin.later ? word : 0;
    if (i == 0 && !margin.atBegin) kept &= ~Word{1};
    const Word matched = mask[i] & (word | bitsBelow(shown, i));
    word = matched << 1 | carry | kept;
    carry = matched >> (kBits - 1);
    any |= word;
  }
  if (!isRedrawn || text[at] != '<') return any != 0;
  addAll(positions);
  return true;
}

void EchoSearch::addAll(Positions* positions) const {
  for (size_t i = 0; i < positions->size(); ++i)
    (*positions)[i] |= bitsBelow(_command.size() + 1, i);
}

Echo echoAt(std::string_view text, std::string_view command) {
  return EchoSearch(command).look(text);
}

}  // namespace zephal::internal
