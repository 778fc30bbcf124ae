#pragma once

#include <cstddef>
#include <string_view>

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

/// Looks for the echo of `command` at the beginning of `text`, which has no escape sequences.
///
/// A console sends back each character that it reads, and in between what its line editor does at
/// the right margin: blank and carriage return, or line break, or carriage return and some of the
/// characters once more; an editor that scrolls shows "<" in place of what has left the line. The
/// echo ends with a line feed.
Echo echoAt(std::string_view text, std::string_view command);

}  // namespace zephal::internal
