#pragma once

#include <cstddef>
#include <string_view>

/// The first part of a chunk's prefix (see ZPILogChunk.h): a line feed, the local time in which the
/// object was created, with milliseconds, and " <".
class ZPILogTime final {
 public:
  ZPILogTime();
  ZPILogTime(const ZPILogTime&) = delete;
  ZPILogTime& operator=(const ZPILogTime&) = delete;

  /// Valid as long as the object.
  std::string_view text() const { return {_text, _length}; }

 private:
  // Long enough for every year that fits into an int.
  static constexpr size_t kRoom = 40;

  char _text[kRoom];
  size_t _length;
};
