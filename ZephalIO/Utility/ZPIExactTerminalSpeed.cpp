#include "Utility/ZPIExactTerminalSpeed.h"

// A source of its own: the kernel's termios2 and the C library's termios.h cannot be included
// together.
#if __has_include(<asm/termbits.h>)
#include <asm/termbits.h>
#endif
#include <sys/ioctl.h>

#include <cerrno>
#include <limits>

#ifdef BOTHER

int ZPISetExactTerminalSpeed(int descriptor, uint64_t rate) {
  if (rate > std::numeric_limits<speed_t>::max()) {
    errno = EINVAL;
    return -1;
  }
  termios2 attributes{};
  if (::ioctl(descriptor, TCGETS2, &attributes) == -1) return -1;
  constexpr tcflag_t kBothSpeeds = CBAUD | (CBAUD << IBSHIFT);
  attributes.c_cflag &= ~kBothSpeeds;
  attributes.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
  attributes.c_ispeed = static_cast<speed_t>(rate);
  attributes.c_ospeed = static_cast<speed_t>(rate);
  return ::ioctl(descriptor, TCSETS2, &attributes);
}

#else

int ZPISetExactTerminalSpeed(int /*descriptor*/, uint64_t /*rate*/) {
  errno = ENOTSUP;
  return -1;
}

#endif
