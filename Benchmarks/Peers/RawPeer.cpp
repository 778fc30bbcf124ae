#include "Peers/RawPeer.h"

#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

RawPeer::RawPeer(const Conversation& conversation)
    : _fd(conversation.device.connect()), _delimiter(conversation.delimiter) {}

RawPeer::~RawPeer() {
  std::free(_buffer);
  ::close(_fd);
}

void RawPeer::write(std::string_view command) {
  char line[128];
  std::memcpy(line, command.data(), command.size());
  line[command.size()] = '\n';
  if (::write(_fd, line, command.size() + 1) < 0) leaveContest("failed", "write");
}

size_t RawPeer::readResponse() {
  size_t searched = 0;
  for (;;) {
    const size_t end = findEnd(searched);
    if (end > 0) return take(end);
    searched = _length - std::min(_length, _delimiter.size() - 1);
    readMore();
  }
}

// By memchr for the first byte: memmem takes longer for text. 0 if there is none.
size_t RawPeer::findEnd(size_t from) const {
  if (_length < _delimiter.size()) return 0;
  const char* bytes = _buffer + _head;
  const size_t places = _length - _delimiter.size() + 1;
  while (from < places) {
    const void* found = std::memchr(bytes + from, _delimiter[0], places - from);
    if (found == nullptr) return 0;
    from = static_cast<size_t>(static_cast<const char*>(found) - bytes);
    if (std::memcmp(found, _delimiter.data(), _delimiter.size()) == 0) {
      return from + _delimiter.size();
    }
    ++from;
  }
  return 0;
}

// A short response at the end of a large buffer is copied too: that is cheaper than a new buffer.
size_t RawPeer::take(size_t length) {
  if (length == _length && _head == 0 && length > _capacity / 2) {
    useBytes(_buffer);
    std::free(std::exchange(_buffer, nullptr));
    _capacity = _length = 0;
    return length;
  }
  char* response = static_cast<char*>(std::malloc(length));
  std::memcpy(response, _buffer + _head, length);
  useBytes(response);
  std::free(response);
  _length -= length;
  _head = _length == 0 ? 0 : _head + length;
  return length;
}

void RawPeer::readMore() {
  int waiting = 0;
  ::ioctl(_fd, FIONREAD, &waiting);
  makeRoom(waiting > 0 ? static_cast<size_t>(waiting) : 256);
  timeval timeout{kPeerTimeout, 0};
  fd_set set;
  FD_ZERO(&set);
  FD_SET(_fd, &set);
  if (::select(_fd + 1, &set, nullptr, nullptr, &timeout) <= 0) leaveContest("failed", "timeout");
  const size_t end = _head + _length;
  const ssize_t count = ::read(_fd, _buffer + end, _capacity - end);
  if (count <= 0) leaveContest("failed", "read");
  _length += static_cast<size_t>(count);
}

void RawPeer::makeRoom(size_t count) {
  if (_capacity - _head - _length >= count) return;
  if (_head > 0) std::memmove(_buffer, _buffer + _head, _length);
  _head = 0;
  if (_capacity - _length >= count) return;
  // Not twice as much: malloc would map more than 32 MiB anew for each response of 16 MiB.
  _capacity = std::max(_length + count, _capacity + _capacity / 2);
  _buffer = static_cast<char*>(std::realloc(_buffer, _capacity));
}
