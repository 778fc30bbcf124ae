#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace zephal {

enum class DeviceEnding { kNone, kHangUp, kReset, kPowerOff };

/// Something that a device sends after a pause, and what follows it.
struct DeviceStep {
  std::string bytes = {};
  std::chrono::milliseconds pause{0};
  DeviceEnding ending = DeviceEnding::kNone;
  /// After kPowerOff, when the device comes back; null: not by itself.
  std::optional<std::chrono::milliseconds> away = {};
};

/// What a device does about bytes that have arrived.
struct DeviceReaction {
  /// The commands that they completed.
  std::vector<std::string> commands = {};
  std::vector<std::string> unknownCommands = {};
  std::vector<DeviceStep> steps = {};
};

}  // namespace zephal
