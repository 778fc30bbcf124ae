#include "Soak/Latencies.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace soak {

size_t Latencies::bucketOf(uint64_t microseconds) {
  if (microseconds < kParts) return static_cast<size_t>(microseconds);
  const auto exponent = static_cast<size_t>(std::bit_width(microseconds)) - 6;
  return (exponent + 1) * kParts + static_cast<size_t>(microseconds >> exponent) - kParts;
}

double Latencies::upperEnd(size_t bucket) {
  if (bucket < kParts) return static_cast<double>(bucket + 1);
  const size_t exponent = bucket / kParts - 1;
  return std::ldexp(static_cast<double>(kParts + bucket % kParts + 1), static_cast<int>(exponent));
}

void Latencies::add(std::chrono::nanoseconds duration) {
  const auto microseconds = static_cast<uint64_t>(std::max<int64_t>(0, duration.count() / 1000));
  ++_buckets[std::min(bucketOf(microseconds), _buckets.size() - 1)];
  uint64_t longest = _longest;
  while (microseconds > longest && !_longest.compare_exchange_weak(longest, microseconds)) {
  }
}

uint64_t Latencies::count() const {
  uint64_t sum = 0;
  for (const auto& bucket : _buckets) sum += bucket;
  return sum;
}

double Latencies::milliseconds(double share) const {
  const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(count())));
  uint64_t sum = 0;
  for (size_t bucket = 0; bucket < _buckets.size(); ++bucket) {
    sum += _buckets[bucket];
    if (sum >= wanted) return std::min(upperEnd(bucket) / 1000, longestMilliseconds());
  }
  return longestMilliseconds();
}

double Latencies::longestMilliseconds() const { return static_cast<double>(_longest) / 1000; }

}  // namespace soak
