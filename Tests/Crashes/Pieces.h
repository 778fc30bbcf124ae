#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace support {

/// Numbered pieces of traffic: "#17 " and text of some lines, between a few bytes and a hundred
/// thousand long, now and then with bytes that are not UTF-8. The same seed makes the same pieces.
class Pieces {
 public:
  explicit Pieces(uint32_t seed) : _seed(seed) {}

  std::string operator[](size_t number) const;
  /// Several pieces, one after another.
  std::string range(size_t first, size_t count) const;

 private:
  uint32_t _seed;
};

}  // namespace support
