#pragma once

#include <sys/time.h>

#include <cstddef>

/// A heap block, the caller's to free(3), of which `length` bytes were read; null if the time ran
/// out.
struct RawChunk {
  char* bytes = nullptr;
  size_t length = 0;
  size_t capacity = 0;
};

/// The system calls that the library makes for a read, in plain C style: FIONREAD, select and one
/// read into a fresh heap block that is not zeroed. Ends the program if the peer has gone.
RawChunk readRawChunk(int fd, timeval wait);
