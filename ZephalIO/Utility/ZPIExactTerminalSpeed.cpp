#include "Utility/ZPIExactTerminalSpeed.h"

// A separate source file: the kernel's termios2 and the C library's termios.h cannot be included
// together.
#if __has_include(<asm/termbits.h>)
#include <asm/termbits.h>
#endif
#include <sys/ioctl.h>

#include <cerrno>
#include <limits>

#ifdef BOTHER

namespace {

constexpr tcflag_t kInputSpeed = CBAUD << IBSHIFT;

// In per cent: a serial line still works with a difference of this size.
constexpr uint64_t kTolerance = 3;

bool isClose(uint64_t actual, uint64_t rate) {
  const uint64_t difference = actual > rate ? actual - rate : rate - actual;
  return difference * 100 <= rate * kTolerance;
}

// A driver may accept a rate that it cannot produce and keep a different one. 0 if it set this one.
int checkSpeeds(int descriptor, uint64_t rate) {
  termios2 actual{};
  if (::ioctl(descriptor, TCGETS2, &actual) == -1) return -1;
  // If the input has no bits of its own, it runs at the output's rate.
  const bool hasInputSpeed = (actual.c_cflag & kInputSpeed) != 0;
  const speed_t input = hasInputSpeed ? actual.c_ispeed : actual.c_ospeed;
  if (isClose(actual.c_ospeed, rate) && isClose(input, rate)) return 0;
  errno = EINVAL;
  return -1;
}

}  // namespace

int ZPISetExactTerminalSpeed(int descriptor, uint64_t rate) {
  if (rate > std::numeric_limits<speed_t>::max()) {
    errno = EINVAL;
    return -1;
  }
  termios2 attributes{};
  if (::ioctl(descriptor, TCGETS2, &attributes) == -1) return -1;
  attributes.c_cflag &= ~(CBAUD | kInputSpeed);
  attributes.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
  attributes.c_ispeed = static_cast<speed_t>(rate);
  attributes.c_ospeed = static_cast<speed_t>(rate);
  if (::ioctl(descriptor, TCSETS2, &attributes) == -1) return -1;
  // Zero hangs up the line and sets no rate, so there is nothing to check.
  return rate == 0 ? 0 : checkSpeeds(descriptor, rate);
}

#else

int ZPISetExactTerminalSpeed(int /*descriptor*/, uint64_t /*rate*/) {
  errno = ENOTSUP;
  return -1;
}

#endif
