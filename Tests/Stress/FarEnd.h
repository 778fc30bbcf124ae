#pragma once

#include <atomic>
#include <cstddef>
#include <thread>

#include "Stress/Dice.h"
#include "Stress/NumberedBytes.h"

namespace support {

/// The far end of a line: two threads send and receive numbered bytes in random pieces.
class FarEnd {
 public:
  /// Sends `size` bytes. The descriptor must stay open as long as the object.
  FarEnd(Dice& dice, int descriptor, size_t size);
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;
  /// Stops both threads.
  ~FarEnd();

  /// Waits until this many bytes have been received; they were the right ones.
  bool waitForReceived(size_t count) const;
  size_t received() const { return _received; }
  /// What the far end sends, and what it expects to receive.
  static constexpr char kSent = 'F';
  static constexpr char kReceived = 'n';

 private:
  void send(Dice dice, size_t size);
  void receive(Dice dice);

  const int _descriptor;
  std::atomic<bool> _isOver{false};
  std::atomic<size_t> _received{0};
  std::thread _sender;
  std::thread _receiver;
};

}  // namespace support
