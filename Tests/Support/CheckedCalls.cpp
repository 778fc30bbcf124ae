#include "Support/CheckedCalls.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace support {

int checked(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

void closeIfOpen(int* descriptor) {
  if (*descriptor >= 0) ::close(*descriptor);
  *descriptor = -1;
}

}  // namespace support
