#pragma once

#include <cstddef>
#include <string_view>

namespace support {

/// A number that the system keeps about this process (proc(5), /proc/self/status): "Threads",
/// "VmRSS" and "VmSize" in KiB, "voluntary_ctxt_switches" and so on; 0 if there is none of that
/// name.
size_t processStatus(std::string_view name);

/// Whether the memory use of the process can be compared between two moments. A sanitizer keeps
/// much of the freed memory.
bool isMemoryComparable();

}  // namespace support
