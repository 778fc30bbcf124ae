#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Soak/Census.h"
#include "Soak/DeviceHost.h"
#include "Soak/Gate.h"
#include "Soak/Options.h"
#include "Soak/SharedState.h"
#include "Soak/Tally.h"
#include "Soak/Worker.h"

namespace soak {

/// The stacks, one thread each, and the counts that are taken now and then while there is none.
class Station {
 public:
  Station(const Options& options, std::string folder, std::vector<std::string> urls,
          SharedState* state);
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;
  ~Station();

  /// What the devices of the stacks must be like.
  static std::vector<DevicePlan> devicePlans(const Options& options, const std::string& folder);

  /// Works for the time that the options say, and calls back after each count. False: some worker
  /// never came to rest.
  bool work(const std::function<void()>& counted);

  const Tally& tally() const { return _tally; }
  Tally& tally() { return _tally; }
  /// The first is from before the first session.
  const std::vector<Census>& censuses() const { return _censuses; }

 private:
  std::unique_ptr<Worker> workerFor(int device) const;
  bool workFor(std::chrono::duration<double> time);
  void count();
  double elapsed() const;

  const Options _options;
  const std::string _folder;
  const std::vector<std::string> _urls;
  SharedState* const _state;
  const std::chrono::steady_clock::time_point _begin;
  mutable Tally _tally;
  Gate _gate;
  std::vector<std::unique_ptr<Worker>> _workers;
  std::vector<Census> _censuses;
};

}  // namespace soak
