#include "RawReader.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "RawChunk.h"

RawReader::RawReader(int fd) : _fd(fd), _thread([this] { readOn(); }) {}

RawReader::~RawReader() {
  _isStopped.store(true, std::memory_order_relaxed);
  _thread.join();
  ::close(_fd);
}

void RawReader::write(std::string_view command) {
  if (::write(_fd, command.data(), command.size()) < 0) std::exit(1);
}

std::vector<char> RawReader::take() {
  const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(10);
  std::vector<char> result;
  std::unique_lock lock(_mutex);
  _condition.wait_until(lock, deadline, [this] { return !_bytes.empty(); });
  result.swap(_bytes);
  return result;
}

void RawReader::readOn() {
  while (!_isStopped.load(std::memory_order_relaxed)) {
    const RawChunk chunk = readRawChunk(_fd, {0, 1000000 / 30});
    if (chunk.length == 0) continue;
    {
      const std::lock_guard guard(_mutex);
      _bytes.insert(_bytes.end(), chunk.bytes, chunk.bytes + chunk.length);
      _condition.notify_one();
    }
    std::free(chunk.bytes);
  }
}
