#pragma once

#include <functional>
#include <set>
#include <string>

namespace support {

/// The descriptors above 2 of programs that are started while another thread makes rounds, at least
/// three, each like "7 -> socket:[4711]"; without those that programs had before.
std::set<std::string> descriptorsInheritedDuring(const std::function<void()>& round);

}  // namespace support
