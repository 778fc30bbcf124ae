#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "DevicePlace.h"
#include "Soak/Device.h"
#include "Soak/SharedState.h"

namespace soak {

/// Where a device is to be, and what it does unasked.
struct DevicePlan {
  zephal::DevicePlace place;
  DeviceHabits habits;
};

/// All devices, in a process of their own: memory, threads and descriptors of the station are then
/// only those of the station.
class DeviceHost {
 public:
  /// Starts the process, before this one has any other thread. Returns when all devices are there;
  /// `urls` has their URLs then.
  DeviceHost(const std::vector<DevicePlan>& plans, uint64_t seed, SharedState* state,
             std::vector<std::string>* urls);
  DeviceHost(const DeviceHost&) = delete;
  DeviceHost& operator=(const DeviceHost&) = delete;
  /// Ends it.
  ~DeviceHost();

 private:
  SharedState* const _state;
  pid_t _process = -1;
};

}  // namespace soak
