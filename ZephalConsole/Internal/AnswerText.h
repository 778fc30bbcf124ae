#pragma once

#include <string>
#include <string_view>

namespace zephal::internal {

/// An answer with lines that end in \n: without the carriage returns at the ends and at the
/// beginnings of lines.
std::string answerText(std::string_view received);

}  // namespace zephal::internal
