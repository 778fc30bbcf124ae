#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace support {

/// The number of threads of this process that have this name. The system keeps only the first 15
/// bytes of a name.
size_t threadsNamed(const std::string& name);

/// Whether a thread of this process, of which gettid(2) is the number, sleeps in the system.
bool isThreadAsleep(pid_t thread);

}  // namespace support
