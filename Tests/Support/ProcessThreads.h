#pragma once

#include <cstddef>
#include <string>

namespace support {

/// The number of threads of this process that have this name, of which the system keeps the first
/// 15 bytes.
size_t threadsNamed(const std::string& name);

}  // namespace support
