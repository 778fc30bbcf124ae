#pragma once

#include <cstddef>
#include <string_view>

namespace support {

/// A number that the system keeps about this process (proc(5), /proc/self/status): "Threads",
/// "VmRSS" and "VmSize" in KiB, "voluntary_ctxt_switches" and so on; 0 if there is none of that
/// name.
size_t processStatus(std::string_view name);

/// How many bytes of malloc's memory are in use; always 0 with AddressSanitizer, which has a heap
/// of its own.
size_t allocatedBytes();

/// Whether the memory use of the process can be compared between two moments. A sanitizer keeps
/// much of the freed memory.
bool isMemoryComparable();

}  // namespace support
