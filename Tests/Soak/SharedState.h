#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace soak {

/// How many devices there can be.
inline constexpr int kMostDevices = 512;

/// What station and devices, which are two processes, tell each other about one device. Written by
/// the device, except for the first two.
struct DeviceState {
  std::atomic<uint32_t> renewalsWanted;
  std::atomic<uint32_t> silenceWanted;  // keeps a device from talking unasked, unless it is 0
  std::atomic<uint32_t> renewalsDone;
  std::atomic<uint32_t> silenceReached;  // the silence that was wanted, once all has been sent
  std::atomic<uint32_t> connection;      // the present one, or the last
  std::atomic<uint32_t> commandsSeen;    // on this connection
  std::atomic<uint32_t> tokensSent;      // on this connection, as accepted by the system
  std::atomic<bool> isBusy;              // has something to send
  std::atomic<uint64_t> commands;
  std::atomic<uint64_t> bytesSent;
  std::atomic<uint64_t> cuts;
  std::atomic<uint64_t> lost;  // of the commands, in bytes; so are the next two
  std::atomic<uint64_t> doubled;
  std::atomic<uint64_t> foreign;
  std::array<char, 256> evidence;  // of the first such command; ends with a NUL
};

/// Memory that both processes have.
struct SharedState {
  std::atomic<bool> mustStop;
  std::atomic<uint64_t> devicesResidentKiB;
  DeviceState devices[kMostDevices];
};

/// Maps it, filled with zeros.
SharedState* mapSharedState();

}  // namespace soak
