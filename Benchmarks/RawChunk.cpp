#include "RawChunk.h"

#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

RawChunk readRawChunk(int fd, timeval wait) {
  int waiting = 0;
  ::ioctl(fd, FIONREAD, &waiting);
  const size_t size = waiting > 0 ? static_cast<size_t>(waiting) : 65536;
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  if (::select(fd + 1, &set, nullptr, nullptr, &wait) <= 0) return {};
  char* chunk = static_cast<char*>(std::malloc(size));
  const ssize_t count = ::read(fd, chunk, size);
  if (count <= 0) {
    std::perror("raw read");
    std::exit(1);
  }
  return {chunk, static_cast<size_t>(count), size};
}
