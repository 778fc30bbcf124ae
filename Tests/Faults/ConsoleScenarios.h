// The scenarios of the console in which every call fails once.
#pragma once

#include <vector>

#include "Faults/Scenarios.h"

namespace support {

std::vector<Scenario> consoleScenarios();

}  // namespace support
