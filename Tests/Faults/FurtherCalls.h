// The calls that only the tests of faults intercept, beside those of Support/SystemCalls: poll,
// getsockopt, stat, eventfd, getaddrinfo, gethostbyname.
#pragma once

#include <string_view>

namespace support {

/// A host name that these calls resolve to this machine.
inline constexpr std::string_view kHostName = "device.test";

}  // namespace support
