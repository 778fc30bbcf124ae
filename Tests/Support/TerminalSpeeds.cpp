// Apart from TerminalState.cpp, since the kernel's structures and termios.h cannot be included
// together.
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace support {

extern const unsigned long kGetExactAttributesRequest;
extern const unsigned long kSetExactAttributesRequest;
const unsigned long kGetExactAttributesRequest = TCGETS2;
const unsigned long kSetExactAttributesRequest = TCSETS2;

std::pair<uint32_t, uint32_t> terminalSpeeds(int descriptor);
std::pair<uint32_t, uint32_t> terminalSpeeds(int descriptor) {
  termios2 attributes{};
  if (::ioctl(descriptor, TCGETS2, &attributes) != 0) {
    throw std::system_error(errno, std::generic_category(), "TCGETS2");
  }
  return {attributes.c_ispeed, attributes.c_ospeed};
}

}  // namespace support
