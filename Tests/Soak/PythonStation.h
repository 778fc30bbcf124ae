#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Soak/Options.h"

namespace soak {

/// A Python process next to the station, with stacks of its own.
class PythonStation {
 public:
  /// Starts it, for devices whose numbers begin with `firstDevice`.
  PythonStation(const Options& options, const std::string& folder, int firstDevice,
                const std::vector<std::string>& urls);
  PythonStation(const PythonStation&) = delete;
  PythonStation& operator=(const PythonStation&) = delete;

  /// Waits for its end. Its report, which is JSON; empty if it failed.
  std::string finish();
  /// Whether it ended as it should.
  bool isGood() const { return _isGood; }

 private:
  const std::string _report;
  pid_t _process = -1;
  bool _isGood = false;
};

}  // namespace soak
