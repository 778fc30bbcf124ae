#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "ZephalConsole/Internal/Expression.h"
#include "ZephalConsole/Internal/TextSearch.h"
#include "ZephalConsole/Pattern.h"

namespace zephal::internal {

/// The search for one pattern in a text that grows at its end and may lose bytes at its front.
///
/// The time that it takes is in proportion to what arrived: a text is looked at byte by byte, and
/// an expression that could go on matching for long is tried again only when the text has grown by
/// half, or when three times as long has passed as the last try took.
class PatternSearch {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr uint64_t kNone = static_cast<uint64_t>(-1);

  /// An expression took too many steps.
  struct TooHard : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  enum class State {
    kNone,     // no match begins in the text
    kPartial,  // more bytes could make a match, or a different one, that begins at begin()
    kFound,    // begins at begin()
  };

  explicit PatternSearch(const Pattern& pattern);

  /// Looks at the text, whose first byte is at `origin`. If `isFinal`, as if no bytes followed;
  /// a later look goes on as if there had been none.
  void look(std::string_view text, uint64_t origin, bool isFinal);

  State state() const { return _state; }
  uint64_t begin() const { return _begin; }
  /// Begin and end of the match found, then of its groups.
  const std::vector<std::pair<uint64_t, uint64_t>>& groups() const { return _groups; }
  /// If the last look was put off, when it is due.
  const std::optional<Clock::time_point>& nextLook() const { return _nextLook; }

 private:
  void lookForText(std::string_view text, uint64_t origin);
  void lookForExpression(std::string_view text, uint64_t origin, bool isFinal);
  bool isDue(uint64_t end);
  Pattern::Expression::Result search(std::string_view text, size_t start, bool isFinal) const;

  Pattern _pattern;
  std::optional<TextSearch> _text;
  State _state = State::kNone;
  uint64_t _begin = 0;
  uint64_t _scanned = 0;  // the end of what was looked at
  std::vector<std::pair<uint64_t, uint64_t>> _groups;
  Clock::time_point _lookAgainAt;
  std::optional<Clock::time_point> _nextLook;
};

}  // namespace zephal::internal
