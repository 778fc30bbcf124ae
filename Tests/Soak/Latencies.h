#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace soak {

/// How long commands took, in buckets that are at most 1/32 wide of what they stand for. Needs no
/// memory as time goes by. Any thread may add.
class Latencies {
 public:
  void add(std::chrono::nanoseconds duration);
  uint64_t count() const;
  /// The upper end, in milliseconds, of the bucket below which this share of all lies; 0 to 1.
  double milliseconds(double share) const;
  double longestMilliseconds() const;

 private:
  static constexpr size_t kParts = 32;
  static size_t bucketOf(uint64_t microseconds);
  static double upperEnd(size_t bucket);

  std::array<std::atomic<uint64_t>, kParts * 40> _buckets{};
  std::atomic<uint64_t> _longest{0};
};

}  // namespace soak
