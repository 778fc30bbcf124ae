#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace support {

/// What the process has at the moment in which the object is made.
struct Possessions {
  Possessions();

  size_t threads;
  size_t descriptors;
  int64_t blocks;  // of memory; 0 in a sanitizer build
};

/// Waits until the process has no more than `before`: a thread that nobody joins takes a moment to
/// end. Returns what is left behind when the time is up; "" if nothing.
std::string leftBehindSince(const Possessions& before,
                            std::chrono::milliseconds limit = std::chrono::seconds(2));

}  // namespace support
