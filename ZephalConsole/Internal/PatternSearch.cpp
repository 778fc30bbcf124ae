#include "ZephalConsole/Internal/PatternSearch.h"

#include <time.h>

#include <algorithm>

namespace zephal::internal {
namespace {

// Cheaper than asking for the time.
constexpr uint64_t kAlwaysCheap = 4096;

constexpr std::chrono::milliseconds kMostProcessorTime(500);
// For this long a search does not ask for its processor time, which takes a system call.
constexpr std::chrono::milliseconds kShortTime(1);
constexpr size_t kFirstBlock = 64;

}  // namespace

PatternSearch::PatternSearch(const Pattern& pattern) : _pattern(pattern) {
  if (!pattern.isExpression()) _text.emplace(pattern.source());
}

void PatternSearch::look(std::string_view text, uint64_t origin, bool isFinal) {
  if (_state != State::kNone && _begin < origin) {  // its beginning was dropped
    _state = State::kNone;
    _scanned = origin;
    if (_text.has_value()) _text->reset();
  }
  _scanned = std::max(_scanned, origin);
  if (_state == State::kFound) return;
  if (_text.has_value()) {
    lookForText(text, origin);
  } else {
    lookForExpression(text, origin, isFinal);
  }
}

void PatternSearch::lookForText(std::string_view text, uint64_t origin) {
  _scanned += _text->take(text.substr(static_cast<size_t>(_scanned - origin)));
  _begin = _scanned - _text->matched();
  _state =
      _text->isFound() ? State::kFound : (_text->matched() > 0 ? State::kPartial : State::kNone);
  if (_state == State::kFound) _groups = {{_begin, _scanned}};
}

void PatternSearch::lookForExpression(std::string_view text, uint64_t origin, bool isFinal) {
  const uint64_t end = origin + text.size();
  _nextLook.reset();
  if (!isDue(end) && !isFinal) return;
  const uint64_t from = _state == State::kPartial ? _begin : _scanned;
  const Clock::time_point started = Clock::now();
  const Pattern::Expression::Result result =
      search(text, static_cast<size_t>(from - origin), isFinal);
  _lookAgainAt = Clock::now() + 3 * (Clock::now() - started);
  using Outcome = Pattern::Expression::Outcome;
  if (result.outcome == Outcome::kTooHard) throw TooHard(_pattern.description());
  if (result.outcome == Outcome::kNone && isFinal) return;
  _scanned = end;
  _begin = origin + result.begin;
  if (result.outcome == Outcome::kNone) _state = State::kNone;
  if (result.outcome == Outcome::kPartial) _state = State::kPartial;
  if (result.outcome != Outcome::kMatch) return;
  _state = State::kFound;
  _groups.clear();
  for (const auto& [groupBegin, groupEnd] : result.groups) {
    const bool tookPart = groupBegin != Pattern::Expression::kNone;
    _groups.emplace_back(tookPart ? origin + groupBegin : kNone,
                         tookPart ? origin + groupEnd : kNone);
  }
}

// Whether it is time to try the expression again.
bool PatternSearch::isDue(uint64_t end) {
  if (_state != State::kPartial) return true;
  const uint64_t tried = _scanned - _begin;
  if (tried <= kAlwaysCheap || end - _scanned >= tried / 2) return true;
  if (Clock::now() >= _lookAgainAt) return true;
  _nextLook = _lookAgainAt;
  return false;
}

// In blocks of beginnings, to notice between them that the search has taken too much of the
// processor: with an unlucky expression a device can make each beginning go over the whole text.
Pattern::Expression::Result PatternSearch::search(std::string_view text, size_t start,
                                                  bool isFinal) const {
  using Result = Pattern::Expression::Result;
  const auto processorTime = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  };
  const Clock::time_point started = Clock::now();
  std::optional<std::chrono::nanoseconds> limit;
  start = _pattern.expression()->firstBegin(text, start);
  for (size_t block = kFirstBlock;; block *= 2) {
    const size_t last = std::min(start + block - 1, text.size());
    Result result = _pattern.expression()->search(text, start, last, isFinal);
    if (result.outcome != Pattern::Expression::Outcome::kNone || last == text.size()) return result;
    if (!limit.has_value() && Clock::now() - started > kShortTime) {
      limit = processorTime() + kMostProcessorTime;
    }
    if (limit.has_value() && processorTime() > *limit) {
      return {Pattern::Expression::Outcome::kTooHard, start};
    }
    start = last + 1;
  }
}

}  // namespace zephal::internal
