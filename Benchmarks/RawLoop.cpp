#include "RawLoop.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "RawChunk.h"

RawLoop::RawLoop(int fd, std::string_view delimiter) : _fd(fd), _delimiter(delimiter) {}

RawLoop::~RawLoop() {
  std::free(_buffer);
  ::close(_fd);
}

void RawLoop::write(std::string_view command) {
  if (::write(_fd, command.data(), command.size()) < 0) std::exit(1);
}

size_t RawLoop::readResponse() {
  size_t searched = 0;
  for (;;) {
    if (_length > searched) {
      const void* found = ::memmem(_buffer + _head + searched, _length - searched,
                                   _delimiter.data(), _delimiter.size());
      if (found != nullptr) {
        const size_t unit =
            static_cast<size_t>(static_cast<const char*>(found) - (_buffer + _head)) +
            _delimiter.size();
        if (unit == _length) {  // the whole buffer: it becomes the response
          std::free(_buffer);
          _buffer = nullptr;
          _head = _length = _capacity = 0;
          return unit;
        }
        char* copy = static_cast<char*>(std::malloc(unit));
        std::memcpy(copy, _buffer + _head, unit);
        asm volatile("" : : "r"(copy) : "memory");
        std::free(copy);
        _head += unit;
        _length -= unit;
        return unit;
      }
      searched = _length - std::min(_length, _delimiter.size() - 1);
    }
    readChunk();
  }
}

void RawLoop::readChunk() {
  const auto [chunk, added, size] = readRawChunk(_fd, {1, 0});
  if (added == 0) return;
  if (_length == 0) {
    std::free(_buffer);
    _buffer = chunk;
    _head = 0;
    _length = added;
    _capacity = size;
    return;
  }
  if (_head > 0) {
    std::memmove(_buffer, _buffer + _head, _length);
    _head = 0;
  }
  if (_length + added > _capacity) {
    _capacity = std::max(_length + added, _capacity * 2);
    _buffer = static_cast<char*>(std::realloc(_buffer, _capacity));
  }
  std::memcpy(_buffer + _length, chunk, added);
  _length += added;
  std::free(chunk);
}
