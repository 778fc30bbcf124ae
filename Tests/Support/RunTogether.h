#pragma once

#include <functional>
#include <vector>

namespace support {

/// Runs each function on a thread of its own. They begin at the same time; returns when all have
/// ended.
void runTogether(const std::vector<std::function<void()>>& bodies);

}  // namespace support
