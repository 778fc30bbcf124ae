#pragma once

#include <string_view>

namespace zephal::internal {

/// The control character with a name, such as "interrupt", or of a letter. Throws
/// std::invalid_argument for another name.
char controlCharacter(std::string_view name);

}  // namespace zephal::internal
