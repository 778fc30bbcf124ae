#pragma once

#include <sys/time.h>

#include <cstddef>

/// A heap block, which the caller releases with free(3), containing the `length` bytes that were
/// read; null if the time ran out.
struct RawChunk {
  char* bytes = nullptr;
  size_t length = 0;
  size_t capacity = 0;
};

/// The system calls that the library makes for a read, in plain C style: FIONREAD, select and one
/// read into a new heap block that is not zeroed. Ends the program if the peer has gone.
RawChunk readRawChunk(int fd, timeval wait);
