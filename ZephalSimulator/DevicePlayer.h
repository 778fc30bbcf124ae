#pragma once

#include <string_view>

#include "DeviceBehaviour.h"
#include "DeviceStep.h"

namespace zephal {

/// Decides what a device says. It sees bytes and knows no lines, time or threads: it is always
/// called on the device's thread, except for its first start.
class DevicePlayer {
 public:
  virtual ~DevicePlayer() = default;

  /// The device starts, for the first time or again.
  virtual DeviceReaction start(const DeviceBehaviour& behaviour) = 0;
  /// Bytes have arrived, however they were split.
  virtual DeviceReaction take(std::string_view bytes, const DeviceBehaviour& behaviour) = 0;
  /// The connection has ended.
  virtual void endConnection() = 0;
};

}  // namespace zephal
