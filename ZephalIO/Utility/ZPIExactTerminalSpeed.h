#pragma once

#include <cstdint>

/// Sets the input and output baud rate of an open terminal to exactly `rate` bits per second, even
/// if no termios constant names it, and changes nothing else (TCSETS2 with BOTHER, see
/// ioctl_tty(2)). Call it after tcsetattr(3), which would set the rate back. A rate of 0 hangs up
/// the line and is not read back.
///
/// Returns 0, or -1 with errno: EINVAL for a rate of more than 32 bits, and if the rate that the
/// driver reports afterwards differs by more than three per cent; ENOTTY if the descriptor is not a
/// terminal; ENOTSUP where the system has no such request.
int ZPISetExactTerminalSpeed(int descriptor, uint64_t rate);
