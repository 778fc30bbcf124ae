#pragma once

#include <atomic>
#include <future>

#include "Support/SystemCalls.h"

namespace support {

/// Watches the system calls of all threads, and holds the next one that writes to a log until it is
/// released.
class HeldLogWrite {
 public:
  HeldLogWrite();
  HeldLogWrite(const HeldLogWrite&) = delete;
  HeldLogWrite& operator=(const HeldLogWrite&) = delete;
  ~HeldLogWrite();

  bool waitUntilHeld() const;
  void release();

  SystemCalls calls{SystemCalls::Threads::kAll};

 private:
  std::atomic<bool> _isHeld{false};
  std::promise<void> _released;
  bool _isReleased = false;
};

}  // namespace support
