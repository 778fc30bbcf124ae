#include "Support/LocationPrefix.h"

namespace support {

std::string locationPrefix() { return "[Zephal-" ZEPHALIO_VERSION "] "; }

}  // namespace support
