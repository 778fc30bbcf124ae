#pragma once

#include <string>

namespace support {

/// How the location of every error begins: "[Zephal-", the version of the project, "] ".
std::string locationPrefix();

}  // namespace support
