#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "Stress/Episodes.h"
#include "Stress/Watchdog.h"

namespace support {

/// Runs episodes one after another, and looks after each one whether a thread or a descriptor was
/// left behind. A finding ends the program.
class StressRun {
 public:
  /// Only the episodes called `name`, unless that is empty.
  StressRun(std::chrono::seconds time, uint64_t seed, std::string name);

  /// False if there is no episode of that name.
  bool run();

 private:
  const Episode* episodeOf(uint64_t seed) const;
  void runEpisode(const Episode& episode, uint64_t seed);
  void reportCounts() const;

  const std::chrono::seconds _time;
  const uint64_t _seed;
  const std::string _name;
  std::map<std::string, size_t> _counts;
  Watchdog _watchdog;
};

}  // namespace support
