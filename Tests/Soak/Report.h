#pragma once

#include <string>
#include <vector>

#include "Soak/Census.h"
#include "Soak/Options.h"
#include "Soak/SharedState.h"
#include "Soak/Tally.h"

namespace soak {

/// What a run came to, as a table for people and as JSON for programs.
class Report {
 public:
  Report(const Options& options, const Tally& tally, const SharedState& state,
         std::vector<Census> censuses, std::string python);

  /// What must not have happened, and did; empty if all is well.
  std::vector<std::string> faults() const;
  std::string table() const;
  std::string json() const;

 private:
  struct Row {
    const char* name;  // in the table
    const char* key;   // in the JSON
    uint64_t value;
  };

  std::vector<Row> rows() const;
  std::string errorTable() const;
  std::string latencyTable() const;
  std::string restTable() const;
  std::string jsonOfCounts() const;
  void addDamagedCommands(std::vector<std::string>* faults) const;
  void addGrowth(std::vector<std::string>* faults) const;
  void addFirstAbove(size_t bound, const char* what, size_t Census::*field,
                     std::vector<std::string>* faults) const;
  const Census& warm() const;
  Damage total() const;
  Damage damageToCommands() const;
  uint64_t sumOf(std::atomic<uint64_t> DeviceState::*field) const;

  const Options _options;
  const Tally& _tally;
  const SharedState& _state;
  const std::vector<Census> _censuses;
  const std::string _python;
};

}  // namespace soak
