#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>

namespace support {

/// Writes on a thread of its own, as fast as it can, until it is told to stop.
class BusyWriter {
 public:
  /// Calls `write` with 0, 1, 2 and so on. Unless `hasThreads`, the calls cannot start a thread.
  /// Returns when traffic is under way.
  explicit BusyWriter(std::function<void(size_t number)> write, bool hasThreads = true);
  BusyWriter(const BusyWriter&) = delete;
  BusyWriter& operator=(const BusyWriter&) = delete;
  ~BusyWriter();

  /// Returns how many writes it made.
  size_t stop();

 private:
  void run(bool hasThreads);

  const std::function<void(size_t)> _write;
  std::atomic<bool> _isDone{false};
  std::atomic<size_t> _writes{0};
  std::thread _thread;
};

}  // namespace support
