#include "ZephalConsole/Internal/Inbox.h"

#include <algorithm>

namespace zephal::internal {
namespace {

// Bytes that arrive within this time share a mark, and there are not more marks than this, so that
// a device that sends single bytes costs no more memory than one that sends many.
constexpr std::chrono::milliseconds kTogether(2);
constexpr size_t kMostMarks = 16384;

// A buffer that was this large is given back once it is empty.
constexpr size_t kKeptCapacity = 256 * 1024;

}  // namespace

Inbox::Inbox(size_t limit) : _limit(limit) {}

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
