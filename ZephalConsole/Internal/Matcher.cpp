#include "ZephalConsole/Internal/Matcher.h"

#include <algorithm>

namespace zephal::internal {

Matcher::Matcher(const std::vector<Pattern>& patterns)
    : _searches(patterns.begin(), patterns.end()) {}

std::optional<Matcher::Found> Matcher::look(std::string_view text, uint64_t origin, bool isFinal) {
  const PatternSearch* first = nullptr;
  for (PatternSearch& search : _searches) {
    search.look(text, origin, isFinal);
    if (search.state() == PatternSearch::State::kNone) continue;
    if (isFinal && search.state() != PatternSearch::State::kFound) continue;
    if (first == nullptr || search.begin() < first->begin()) first = &search;
  }
  if (first == nullptr || first->state() != PatternSearch::State::kFound) return std::nullopt;
  // An empty match at the end: the next byte may begin a match of a pattern that is listed before.
  const bool isAtEnd = first->begin() == origin + text.size();
  if (isAtEnd && first != _searches.data() && !isFinal) return std::nullopt;
  return Found{static_cast<size_t>(first - _searches.data()), first->groups()};
}

bool Matcher::isUndecided() const {
  return std::any_of(_searches.begin(), _searches.end(), [](const PatternSearch& search) {
    return search.state() != PatternSearch::State::kNone;
  });
}

std::optional<std::chrono::steady_clock::time_point> Matcher::nextLook() const {
  std::optional<std::chrono::steady_clock::time_point> next;
  for (const PatternSearch& search : _searches) {
    if (search.nextLook().has_value() && (!next.has_value() || *search.nextLook() < *next)) {
      next = search.nextLook();
    }
  }
  return next;
}

}  // namespace zephal::internal
