#pragma once

namespace support {

/// Whether the system knows the name "localhost", as a machine without /etc/hosts does not.
bool resolvesLocalhost();

}  // namespace support
