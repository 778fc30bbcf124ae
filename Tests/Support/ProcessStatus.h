#pragma once

#include <cstddef>
#include <string_view>

namespace support {

/// A number that the system keeps about this process (proc(5), /proc/self/status): "Threads",
/// "VmRSS" and "VmSize" in KiB, "voluntary_ctxt_switches" and so on; 0 if there is none of the
/// name.
size_t processStatus(std::string_view name);

/// Whether memory of the process can be compared from one moment to another. A sanitizer keeps much
/// that was freed.
bool isMemoryComparable();

}  // namespace support
