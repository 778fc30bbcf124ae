#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace zephal::internal {

/// Where the echo of a command ends.
struct Echo {
  enum class State {
    kNone,       // the text does not begin with an echo
    kUndecided,  // more bytes may complete one
    kFound,      // it is the first `length` bytes, its line break included
  };
  State state = State::kNone;
  size_t length = 0;
};

/// Looks for the echo of a command at the beginning of a text that is still arriving, and has no
/// escape sequences.
///
/// A console sends back each character that it reads, and in between what its line editor does at
/// the right margin: blank and carriage return, or line break, or carriage return and some of the
/// characters once more; an editor that scrolls shows "<" in place of what has left the line. The
/// echo ends with a line feed.
///
/// Each byte is looked at one time. It takes as many steps as the command has characters, divided
/// by 64, however the device mixes redraws; and what is longer than 4 times the command and 1 KiB
/// is no echo.
class EchoSearch {
 public:
  /// The command must outlive it.
  explicit EchoSearch(std::string_view command);

  /// `text` begins with the text of the last call.
  Echo look(std::string_view text);

 private:
  using Word = uint64_t;
  // How many characters of the command may have been echoed so far: a bit for each number.
  using Positions = std::vector<Word>;

  std::optional<Echo> lookPlainly(std::string_view text);
  void prepare();
  bool isComplete() const;
  size_t mostShown() const;
  bool step(std::string_view text, size_t at, Positions* positions) const;
  void addAll(Positions* positions) const;

  const std::string_view _command;
  // For each byte where in `_masks` its mask begins: the places where the command has it. The mask
  // of the bytes that it does not have is the first.
  std::array<uint32_t, 256> _maskOf{};
  std::vector<Word> _masks;
  Positions _positions;  // empty while the text is the command's own beginning
  size_t _at = 0;        // the first byte that was not looked at
};

/// The same for a text that is complete, or is looked at from its beginning each time.
Echo echoAt(std::string_view text, std::string_view command);

}  // namespace zephal::internal
