#pragma once

#include <atomic>
#include <thread>

#include "Stress/Dice.h"

namespace support {

/// During its lifetime, a thread opens sockets and closes them again, and so gets the numbers of
/// descriptors that others have just closed. It requires that nobody writes to them, and that what
/// it writes stays there.
class ForeignSockets {
 public:
  explicit ForeignSockets(Dice& dice);
  ForeignSockets(const ForeignSockets&) = delete;
  ForeignSockets& operator=(const ForeignSockets&) = delete;
  ~ForeignSockets();

 private:
  void run(Dice dice) const;

  std::atomic<bool> _isOver{false};
  std::thread _thread;
};

}  // namespace support
