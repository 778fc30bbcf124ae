#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "DevicePlayer.h"
#include "DeviceRecording.h"

namespace zephal {

/// Plays a recording: DeviceRecording says how. It has no use for a behaviour.
class RecordingPlayer final : public DevicePlayer {
 public:
  explicit RecordingPlayer(const DeviceRecording& recording);

  DeviceReaction start(const DeviceBehaviour& behaviour) override;
  DeviceReaction take(std::string_view bytes, const DeviceBehaviour& behaviour) override;
  void endConnection() override;

 private:
  void keep(std::string_view bytes);
  std::optional<size_t> arrived() const;
  bool hasBegun() const;
  bool takeUnknown(DeviceReaction* reaction);
  void play(size_t index, DeviceReaction* reaction);

  const std::vector<DeviceRecording::Exchange> _exchanges;
  size_t _next = 0;            // the exchange that is expected; their number after the last one
  std::string _pending;        // received and not yet answered, with "\n" for each line break
  bool _endsInReturn = false;  // the last byte received was a CR, so that a LF belongs to it
};

}  // namespace zephal
