#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zephal::internal {

/// Removes ANSI escape sequences (ECMA-48) from a stream, however it is cut: control sequences such
/// as colours and cursor movements, strings such as window titles, and the two- and three-character
/// escapes. Other control characters stay.
///
/// A string that never ends swallows at most 4 KiB, a control sequence at most 64 bytes.
class EscapeFilter {
 public:
  /// Appends what is left of `bytes` to `text`.
  void filter(std::string_view bytes, std::string& text);
  void reset() { _state = State::kText; }

 private:
  enum class State { kText, kEscape, kIntermediate, kControl, kString, kStringEscape };

  void step(char byte, std::string& text);
  State afterEscape(char byte) const;
  State next(char byte, std::string& text);

  State _state = State::kText;
  size_t _length = 0;  // of the sequence so far
};

}  // namespace zephal::internal
