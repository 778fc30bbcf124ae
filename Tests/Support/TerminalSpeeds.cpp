// Apart from TerminalState.cpp, since the kernel's structures and termios.h cannot be included
// together.
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <utility>

#include "Support/CheckedCalls.h"

namespace support {

extern const unsigned long kGetExactAttributesRequest;
extern const unsigned long kSetExactAttributesRequest;
const unsigned long kGetExactAttributesRequest = TCGETS2;
const unsigned long kSetExactAttributesRequest = TCSETS2;

std::pair<uint32_t, uint32_t> terminalSpeeds(int descriptor);
std::pair<uint32_t, uint32_t> terminalSpeeds(int descriptor) {
  termios2 attributes{};
  checked(::ioctl(descriptor, TCGETS2, &attributes), "TCGETS2");
  return {attributes.c_ispeed, attributes.c_ospeed};
}

void setTerminalSpeeds(int descriptor, uint32_t input, uint32_t output);
void setTerminalSpeeds(int descriptor, uint32_t input, uint32_t output) {
  termios2 attributes{};
  checked(::ioctl(descriptor, TCGETS2, &attributes), "TCGETS2");
  constexpr tcflag_t kBothSpeeds = CBAUD | (CBAUD << IBSHIFT);
  attributes.c_cflag &= ~kBothSpeeds;
  attributes.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
  attributes.c_ispeed = input;
  attributes.c_ospeed = output;
  checked(::ioctl(descriptor, TCSETS2, &attributes), "TCSETS2");
}

}  // namespace support
