#pragma once

#include <atomic>
#include <chrono>
#include <thread>

namespace support {

/// Ends the program if an episode takes too long, and prints the place of every thread.
class Watchdog {
 public:
  explicit Watchdog(std::chrono::seconds limit);
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  ~Watchdog();

  /// An episode begins: the time starts anew.
  void restart();

 private:
  void run();

  const std::chrono::seconds _limit;
  std::atomic<std::chrono::steady_clock::rep> _start{0};
  std::atomic<bool> _isOver{false};
  std::thread _thread;
};

}  // namespace support
