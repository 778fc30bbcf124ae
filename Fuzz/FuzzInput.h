#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Takes values from a fuzzer's input; beyond its end everything is 0 or empty.
class FuzzInput {
 public:
  explicit FuzzInput(std::string_view input) : _input(input) {}
  FuzzInput(const uint8_t* bytes, size_t size)
      : _input(reinterpret_cast<const char*>(bytes), size) {}

  bool isUsedUp() const { return _input.empty(); }
  uint8_t byte() { return static_cast<uint8_t>(number(1)); }
  bool flag() { return byte() % 2 == 1; }
  /// A number below `limit`.
  size_t below(size_t limit) { return byte() % limit; }

  uint64_t number(size_t width) {
    uint64_t result = 0;
    for (const char byte : take(width)) result = result << 8 | static_cast<uint8_t>(byte);
    return result;
  }

  /// Up to `longest` bytes of any value; `longest` is at most 255.
  std::string text(size_t longest = 31) { return std::string(take(below(longest + 1))); }

  /// The same, made of the letters of an alphabet, so that bytes that mean something are frequent.
  std::string textOf(std::string_view alphabet, size_t longest = 31) {
    std::string letters = text(longest);
    for (char& letter : letters) {
      letter = alphabet[static_cast<uint8_t>(letter) % alphabet.size()];
    }
    return letters;
  }

  std::string_view rest() { return take(_input.size()); }

 private:
  std::string_view take(size_t count) {
    const std::string_view taken = _input.substr(0, count);
    _input.remove_prefix(taken.size());
    return taken;
  }

  std::string_view _input;
};
