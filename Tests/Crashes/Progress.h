#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace support {

/// What a victim tells its parent, in memory that both share and that outlives it.
struct Progress {
  static constexpr size_t kMostPieces = size_t{1} << 18;

  /// Counts milliseconds, but only while the victim gets to run.
  std::atomic<uint32_t> ticks{0};
  /// How many pieces were handed over to the logs: the calls that log them have returned.
  std::atomic<uint32_t> logged{0};
  /// Set by the parent: the victim is to close its logs and end.
  std::atomic<bool> isToEnd{false};
  /// When each piece was logged: in ticks, and in microseconds of the system's monotonic clock.
  std::array<std::atomic<uint32_t>, kMostPieces> tickOf;
  std::array<std::atomic<int64_t>, kMostPieces> timeOf;

  /// Says that one more piece was logged. False if there is no room for another.
  bool addLogged();
  static int64_t now();
};

}  // namespace support
