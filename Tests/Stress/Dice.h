#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>

namespace support {

/// Random numbers that a seed repeats. Not for two threads at once: give each a `child`.
class Dice {
 public:
  explicit Dice(uint64_t seed) : _engine(seed) {}

  uint64_t number() { return _engine(); }
  /// 0 to count - 1.
  size_t below(size_t count) { return static_cast<size_t>(_engine() % count); }
  bool oneIn(size_t count) { return below(count) == 0; }
  Dice child() { return Dice(_engine()); }
  /// Sleeps for up to `limit`; often not at all.
  void pause(std::chrono::microseconds limit);

 private:
  std::mt19937_64 _engine;
};

}  // namespace support
