#include "ZephalConsole/Internal/Descriptor.h"

#include <unistd.h>

namespace zephal::internal {

Descriptor::~Descriptor() {
  if (_number >= 0) ::close(_number);
}

}  // namespace zephal::internal
