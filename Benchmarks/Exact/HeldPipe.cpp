#include "HeldPipe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

int openPipe(const std::string& path, int flags) {
  const int descriptor = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC);
  if (descriptor >= 0) return descriptor;
  std::perror(path.c_str());
  std::exit(1);
}

void fill(const std::string& path) {
  const int descriptor = openPipe(path, O_WRONLY);
  const std::array<char, 4096> bytes{};
  while (::write(descriptor, bytes.data(), bytes.size()) > 0) continue;
  ::close(descriptor);
}

}  // namespace

HeldPipe::HeldPipe(std::string path) : _path(std::move(path)) {
  ::unlink(_path.c_str());
  ::mkfifo(_path.c_str(), 0600);
  _descriptor = openPipe(_path, O_RDONLY);
  fill(_path);
}

HeldPipe::~HeldPipe() {
  if (_drain.joinable()) _drain.join();
  ::close(_descriptor);
  ::unlink(_path.c_str());
}

void HeldPipe::drain() {
  ::fcntl(_descriptor, F_SETFL, 0);
  _drain = std::thread([descriptor = _descriptor] {
    std::array<char, 65536> bytes;
    while (::read(descriptor, bytes.data(), bytes.size()) > 0) continue;
  });
}
