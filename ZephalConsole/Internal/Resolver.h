#pragma once

#include <netdb.h>

#include <memory>
#include <string>

#include "ZephalConsole/Internal/Stop.h"

namespace zephal::internal {

struct FreeAddresses {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

/// Looks up a host (getaddrinfo(3)). A lookup cannot be interrupted, so a name, other than a
/// numeric address, is looked up on a thread of its own, which outlives this call if the operation
/// stops first. Throws OpenError in the name of `url`.
Addresses resolve(const std::string& host, int port, const Stop& stop, const std::string& url);

}  // namespace zephal::internal
