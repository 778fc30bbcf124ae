#include "Support/TerminalState.h"

#include <cerrno>
#include <system_error>

namespace support {

termios terminalAttributes(int descriptor) {
  termios attributes{};
  if (::tcgetattr(descriptor, &attributes) != 0) {
    throw std::system_error(errno, std::generic_category(), "tcgetattr");
  }
  return attributes;
}

}  // namespace support
