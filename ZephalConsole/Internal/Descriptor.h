#pragma once

#include <utility>

namespace zephal::internal {

/// Owns a file descriptor; -1 is none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : _number(number) {}
  Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_number, other._number);
    return *this;
  }
  ~Descriptor();

  int number() const { return _number; }
  bool isValid() const { return _number >= 0; }

 private:
  int _number = -1;
};

}  // namespace zephal::internal
