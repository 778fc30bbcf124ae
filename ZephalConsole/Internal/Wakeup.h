#pragma once

#include "ZephalConsole/Internal/Descriptor.h"

namespace zephal::internal {

/// Ends a poll(2) on another thread (eventfd(2)). Any thread may call anything.
class Wakeup {
 public:
  /// Throws std::system_error.
  Wakeup();
  int descriptor() const { return _event.number(); }
  /// The descriptor becomes readable and stays so until `clear`.
  void wake() const noexcept;
  void clear() const noexcept;

 private:
  const Descriptor _event;
};

}  // namespace zephal::internal
