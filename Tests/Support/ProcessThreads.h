#pragma once

#include <cstddef>
#include <string>

namespace support {

/// The number of threads of this process that have this name. The system keeps only the first 15
/// bytes of a name.
size_t threadsNamed(const std::string& name);

}  // namespace support
