#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ZephalConsole/Pattern.h"

struct pcre2_real_code_8;

namespace zephal {

/// A compiled expression. Immutable, so several threads may search with it.
class Pattern::Expression final {
 public:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  /// Throws std::invalid_argument.
  explicit Expression(std::string_view source);
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;
  ~Expression();

  const std::string& source() const { return _source; }
  /// Whether it may match an empty text.
  bool matchesNothing() const;

  enum class Outcome {
    kMatch,
    kPartial,  // more bytes could make a match, or a different one, that begins at `begin`
    kNone,
    kTooHard,
  };
  struct Result {
    Outcome outcome = Outcome::kNone;
    size_t begin = 0;
    /// Begin and end of the match and its groups; kNone for a group that took no part.
    std::vector<std::pair<size_t, size_t>> groups = {};
  };
  /// From `start` on, the first place where a match, or a beginning of one, may be.
  size_t firstBegin(std::string_view text, size_t start) const;
  /// Looks for the first match that begins between `start` and `lastStart`. Unless `isWhole`, more
  /// bytes may follow the text.
  Result search(std::string_view text, size_t start, size_t lastStart, bool isWhole) const;

 private:
  const std::string _source;
  pcre2_real_code_8* _code = nullptr;
  std::string _firstBytes;  // with one of which each match begins; empty if there are many
};

}  // namespace zephal
