#pragma once

#include <cstdint>

/// Sets the input and the output speed of an open terminal to exactly `rate` bits per second, also
/// a rate that no termios constant names; everything else stays (TCSETS2 with BOTHER, see
/// ioctl_tty(2)). 0, or -1 with errno: EINVAL for a rate of more than 32 bits, and for one that the
/// driver accepted but did not take, off by more than three per cent when it is read back; ENOTTY
/// for what is no terminal, ENOTSUP where the system has no such request. A rate of 0 hangs up the
/// line and is not read back. Comes after tcsetattr, which would set the speed back.
int ZPISetExactTerminalSpeed(int descriptor, uint64_t rate);
