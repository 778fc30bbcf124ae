#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "ZephalConsole/Internal/PatternSearch.h"
#include "ZephalConsole/Pattern.h"

namespace zephal::internal {

/// Looks for several patterns in a text that grows at its end and may lose bytes at its front.
///
/// The match that begins first is the one; of several that begin there, that of the pattern listed
/// first. It is decided when no further bytes could change it. Positions count from the beginning
/// of the stream.
class Matcher {
 public:
  explicit Matcher(const std::vector<Pattern>& patterns);

  struct Found {
    size_t index = 0;
    std::vector<std::pair<uint64_t, uint64_t>> groups = {};  // PatternSearch::kNone for none
  };
  /// Looks at `text`, whose first byte is at `origin`. If `isFinal`, what is there decides. Throws
  /// PatternSearch::TooHard.
  std::optional<Found> look(std::string_view text, uint64_t origin, bool isFinal);

  /// Whether more bytes, or a final look, could decide what begins in the text.
  bool isUndecided() const;
  /// The last look put off an expensive search; looking again is worth it from then on.
  std::optional<std::chrono::steady_clock::time_point> nextLook() const;

 private:
  std::vector<PatternSearch> _searches;
};

}  // namespace zephal::internal
