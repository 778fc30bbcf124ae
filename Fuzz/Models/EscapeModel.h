#pragma once

#include <string>
#include <string_view>

/// A text without its ANSI escape sequences, from the whole text at one time.
std::string withoutEscapes(std::string_view text);
