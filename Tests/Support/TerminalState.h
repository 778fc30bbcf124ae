#pragma once

#include <termios.h>

#include <cstdint>
#include <utility>

namespace support {

/// The requests that read and set a terminal with exact speeds, which termios.h does not declare.
extern const unsigned long kGetExactAttributesRequest;
extern const unsigned long kSetExactAttributesRequest;

/// The input and the output speed of a terminal, in bits per second, as the system stores them.
std::pair<uint32_t, uint32_t> terminalSpeeds(int descriptor);

/// Sets the input and the output speed of a terminal, which may differ.
void setTerminalSpeeds(int descriptor, uint32_t input, uint32_t output);

/// The attributes of a terminal.
termios terminalAttributes(int descriptor);

}  // namespace support
