#pragma once

#include <cstddef>
#include <cstdint>

#include "Utility/ZPKMutableData.h"

/// Room at the end of a buffer for bytes that a system call delivers. While it lives, the buffer
/// must not be edited otherwise. Not thread-safe.
class ZPIRoom {
 public:
  /// Makes room for `size` bytes. `data` must live longer.
  ZPIRoom(ZPKMutableData* data, size_t size);
  ZPIRoom(const ZPIRoom&) = delete;
  ZPIRoom& operator=(const ZPIRoom&) = delete;
  /// Frees the room if it turned out much too large.
  ~ZPIRoom();

  /// Where the room begins; null if memory could not be allocated.
  uint8_t* bytes() const;
  /// Makes the first `count` bytes of the room the last of the buffer.
  void fill(size_t count);

 private:
  ZPKMutableData& _data;
  bool _isThere = false;
};
