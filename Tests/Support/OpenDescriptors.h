#pragma once

#include <set>

namespace support {

/// The descriptors that the process has open, to see whether a call leaves one behind.
std::set<int> openDescriptors();

/// Whether `descriptor` is open.
bool isOpenDescriptor(int descriptor);

}  // namespace support
