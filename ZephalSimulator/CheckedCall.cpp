#include "CheckedCall.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace zephal {

void throwFailure(int number, const std::string& call, const std::string& address) {
  throw std::system_error(number, std::generic_category(),
                          "simulated device: " + call + (address.empty() ? "" : " " + address));
}

int checkedCall(int result, const std::string& call, const std::string& address) {
  if (result < 0) throwFailure(errno, call, address);
  return result;
}

void closeDescriptor(int* descriptor) {
  if (*descriptor >= 0) ::close(*descriptor);
  *descriptor = -1;
}

}  // namespace zephal
