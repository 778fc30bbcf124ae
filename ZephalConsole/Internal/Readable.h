#pragma once

#include <string>
#include <string_view>

namespace zephal::internal {

/// The last bytes of a text, on one line, with control characters and bytes outside ASCII escaped
/// as in a C string; "nothing" for an empty text.
std::string readableEnd(std::string_view text);

/// A pattern, on one line: the same without quotation marks, and backslashes stay single.
std::string readablePattern(std::string_view source);

}  // namespace zephal::internal
