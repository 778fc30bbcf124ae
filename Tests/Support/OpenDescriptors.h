#pragma once

#include <set>

namespace support {

/// The descriptors that the process has open, to see whether a call leaves one behind.
std::set<int> openDescriptors();

/// Whether `descriptor` is open.
bool isOpenDescriptor(int descriptor);

/// Those of `descriptors` that a program started now inherits, as that program sees it.
std::set<int> inheritedOf(const std::set<int>& descriptors);

/// The descriptors opened since `before`.
std::set<int> descriptorsSince(const std::set<int>& before);

}  // namespace support
