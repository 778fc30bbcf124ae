#pragma once

#include <cstddef>
#include <string_view>

/// What a stack is compared with: the system calls that the library makes, in plain C style. A
/// write and then raw chunks; each search begins where the previous one ended.
class RawLoop {
 public:
  explicit RawLoop(int fd, std::string_view delimiter);
  RawLoop(const RawLoop&) = delete;
  RawLoop& operator=(const RawLoop&) = delete;
  ~RawLoop();

  /// Writes a command, in one write.
  void write(std::string_view command);
  /// Reads up to the delimiter and copies the response into a heap block of its own, which is freed
  /// at once. Returns its length.
  size_t readResponse();

 private:
  void readChunk();

  int _fd;
  std::string_view _delimiter;
  char* _buffer = nullptr;  // bytes not returned yet begin at _head
  size_t _head = 0;
  size_t _length = 0;
  size_t _capacity = 0;
};
