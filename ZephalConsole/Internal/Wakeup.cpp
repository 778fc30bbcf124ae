#include "ZephalConsole/Internal/Wakeup.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace zephal::internal {

Wakeup::Wakeup() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!_event.isValid()) throw std::system_error(errno, std::generic_category(), "eventfd");
}

// Neither can fail in a way that matters: the counter cannot overflow, and an empty one is clear.
void Wakeup::wake() const noexcept { ::eventfd_write(_event.number(), 1); }

void Wakeup::clear() const noexcept {
  eventfd_t count = 0;
  ::eventfd_read(_event.number(), &count);
}

}  // namespace zephal::internal
