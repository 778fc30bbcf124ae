// Two faults in one run of a scenario.
#pragma once

#include <cstddef>
#include <optional>
#include <random>

#include "Faults/Scenarios.h"
#include "Faults/Trial.h"

namespace support {

/// Chooses pairs of faults at random: the first from what the scenario does, the second from what
/// it does after the first has happened.
class FaultPairs {
 public:
  /// The same seed gives the same pairs, except where threads run in a different order.
  FaultPairs(const Scenario& scenario, int seed);

  /// None if nothing is called after any of several first faults.
  std::optional<Fault> next();

 private:
  size_t below(size_t end) { return _random() % end; }
  Fault call(const std::vector<SystemCall>& calls, size_t index);
  Fault first();
  std::optional<Fault> second(const Fault& first, const Trace& trace);

  const Scenario _scenario;
  std::mt19937 _random;
  Trace _undisturbed;
};

}  // namespace support
