#pragma once

namespace support {

// Timeouts of reads, in seconds.

inline constexpr double kNow = 0.0;
inline constexpr double kForever = -1.0;
/// Longer than any test runs.
inline constexpr double kLong = 30.0;

}  // namespace support
