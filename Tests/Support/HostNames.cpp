#include "Support/HostNames.h"

#include <netdb.h>

namespace support {

bool resolvesLocalhost() { return ::gethostbyname("localhost") != nullptr; }

}  // namespace support
