#pragma once

#include <functional>

namespace support {

/// Runs a part of a test in a forked process, so that what it does to its mounts and limits ends
/// with it, and fails the test if an expectation fails there. The test program must have no
/// threads; the part may start some.
void runAside(const std::function<void()>& part);

}  // namespace support
