#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

/// What an active channel is compared with: a thread that reads raw chunks in slices of 1/30 second
/// into a vector, with a mutex and a condition variable.
class RawReader {
 public:
  /// Takes over the file descriptor.
  explicit RawReader(int fd);
  RawReader(const RawReader&) = delete;
  RawReader& operator=(const RawReader&) = delete;
  ~RawReader();

  /// Writes a command, in one write.
  void write(std::string_view command);
  /// Everything that has arrived, as soon as there is anything; empty after ten seconds.
  std::vector<char> take();

 private:
  void readOn();

  const int _fd;
  std::atomic<bool> _isStopped{false};
  std::mutex _mutex;
  std::condition_variable _condition;
  std::vector<char> _bytes;  // guarded by _mutex
  std::thread _thread;
};
