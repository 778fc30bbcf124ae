#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace zephal {

/// One line of a raw log:
///
///     2024-05-01 12:00:00.250 <pre--write>[4711]: version
struct RawLogEntry {
  /// Null if the line is not an entry of a read or a write.
  static std::optional<RawLogEntry> of(std::string_view line);

  /// Local time, since some day: good for differences.
  std::chrono::milliseconds time{0};
  /// "pre-" of <pre---read> and <pre--write>.
  std::string_view identifier;
  bool isWrite = false;
  std::string_view process;
  std::string_view text;
};

}  // namespace zephal
