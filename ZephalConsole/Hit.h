#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ZephalConsole/Export.h"

namespace zephal {

/// Where a pattern was found. A value of its own: nothing refers to the console.
class ZEPHAL_CONSOLE_EXPORT Hit {
 public:
  /// Which of the patterns was found, counted from 0.
  size_t index = 0;
  /// What was unread before the match.
  std::string before;
  /// The match and, for an expression, its groups: groups[0] is the match, and a group that took no
  /// part is empty (std::nullopt).
  std::vector<std::optional<std::string>> groups;
  /// When the last byte of the match was read.
  std::chrono::system_clock::time_point time;
  /// How many bytes in front of `before` were dropped, because nobody read them and they exceeded
  /// the limit.
  uint64_t lost = 0;

  /// The match.
  const std::string& text() const { return *groups.front(); }
  /// A group's text; empty if it took no part. Throws std::out_of_range for a group that the
  /// expression does not have.
  std::string group(size_t number) const;
  /// A group as a number: decimal, with fraction and exponent, or hexadecimal after "0x". Blanks
  /// around it are ignored. Throws std::invalid_argument if the group is anything else, and
  /// std::out_of_range as above.
  double number(size_t group = 1) const;
};

}  // namespace zephal
