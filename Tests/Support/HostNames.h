#pragma once

namespace support {

/// Whether the system resolves the name "localhost". A machine without /etc/hosts does not.
bool resolvesLocalhost();

}  // namespace support
