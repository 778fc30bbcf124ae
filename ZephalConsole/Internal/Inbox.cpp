#include "ZephalConsole/Internal/Inbox.h"

#include <algorithm>
#include <utility>

namespace zephal::internal {
namespace {

// Bytes that arrive within this time share a mark, and there are not more marks than this, so that
// a device that sends single bytes costs no more memory than one that sends many.
constexpr std::chrono::milliseconds kTogether(2);
constexpr size_t kMostMarks = 16384;

// A buffer that was this large is given back once it is empty.
constexpr size_t kKeptCapacity = 256 * 1024;

// From this size on a buffer grows faster, so that few bytes are moved while much arrives. Pages
// that are not used take no memory.
constexpr size_t kManyBytes = size_t{1} << 20;
constexpr size_t kFastGrowth = 4;
// What may arrive beyond the limit before the oldest bytes are dropped.
constexpr size_t kOneRead = 64 * 1024;

// A text of this length is handed over with its buffer instead of being copied.
constexpr size_t kLongText = 64 * 1024;

}  // namespace

Inbox::Inbox(size_t limit) : _limit(limit) {}

std::string& Inbox::room(size_t count) {
  const size_t needed = _text.size() + count;
  if (needed > _text.capacity()) grow(needed);
  return _text;
}

void Inbox::grow(size_t needed) {
  size_t wanted = std::max(needed, 2 * _text.capacity());
  if (needed >= kManyBytes) {
    wanted = std::max(wanted, std::min(kFastGrowth * needed, _limit) + kOneRead);
  }
  _text.reserve(wanted);
}

void Inbox::appended(Time time) {
  if (end() - begin() > _limit) {
    const uint64_t excess = end() - begin() - _limit;
    _lost += excess;
    readUpTo(begin() + excess);
  }
  if (!_marks.empty() && time - _marks.back().time < kTogether) {
    _marks.back().end = end();
    return;
  }
  _marks.push_back({end(), time});
  if (_marks.size() > kMostMarks) _marks.pop_front();
}

void Inbox::readUpTo(uint64_t position) {
  _read = static_cast<size_t>(std::min(position, end()) - _origin);
  while (_marks.size() > 1 && _marks.front().end <= begin()) _marks.pop_front();
  dropRead();
}

std::string Inbox::take(uint64_t position) {
  const size_t count = static_cast<size_t>(position - begin());
  if (count < kLongText || 2 * count < _text.capacity()) {
    std::string taken(text().substr(0, count));
    readUpTo(position);
    return taken;
  }
  std::string rest(text().substr(count));
  _text.resize(_read + count);
  _text.erase(0, _read);
  _origin = position;
  _read = 0;
  std::string taken = std::exchange(_text, std::move(rest));
  readUpTo(position);
  return taken;
}

// Removes what was read once it is half of the text, so that each byte is moved one time at most.
void Inbox::dropRead() {
  if (_read < _text.size() - _read) return;
  _text.erase(0, _read);
  _origin += _read;
  _read = 0;
  if (_text.empty() && _text.capacity() > kKeptCapacity) _text.shrink_to_fit();
}

Inbox::Time Inbox::timeOf(uint64_t position) const {
  const auto mark = std::lower_bound(
      _marks.begin(), _marks.end(), position,
      [](const Mark& candidate, uint64_t wanted) { return candidate.end < wanted; });
  return mark == _marks.end() ? Time::clock::now() : mark->time;
}

uint64_t Inbox::takeLoss() {
  const uint64_t loss = _lost - _told;
  _told = _lost;
  return loss;
}

}  // namespace zephal::internal
