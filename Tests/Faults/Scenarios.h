// The scenarios in which every call fails once.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Faults/Trial.h"

namespace support {

/// What happens in a trial. The name is that of a test.
struct Scenario {
  std::string name;
  std::function<void(Trial&)> run;
};

/// Those of stacks, servers and managers.
std::vector<Scenario> faultScenarios();

/// Those of the whole program.
std::vector<Scenario> allFaultScenarios();

}  // namespace support
