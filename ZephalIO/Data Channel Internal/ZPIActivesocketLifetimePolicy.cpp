#include "Data Channel Internal/ZPIActivesocketLifetimePolicy.h"

#include "Data Channel Internal/ZPICloseDescriptor.h"
#include "Utility/ZPITCPSocketFunctions.h"
#include "Utility/ZPIUnixSocketFunctions.h"

bool ZPIActivesocketLifetimePolicy::acquire(int32_t* descriptor, ZPKErrorPtr* /*error*/) const {
  *descriptor = socket_from_url(url);
  return *descriptor != -1;
}

int32_t ZPIActivesocketLifetimePolicy::socket_from_url(const ZPKURLPtr& url) {
  if (url == nullptr) return -1;
  if (url->scheme() == "tcp") {
    const char* const host = url->host().has_value() ? url->host()->c_str() : nullptr;
    const auto port = static_cast<uint16_t>(url->port().value_or(0));
    return ZPIActiveTCP(host, port, nullptr, ZPISocketOwner::kLibrary);
  }
  if (url->scheme() == "unix") return active_unix(url->path(), ZPISocketOwner::kLibrary);
  return -1;
}

bool ZPIActivesocketLifetimePolicy::close(int32_t descriptor, ZPKErrorPtr* error) const {
  return ZPICloseDescriptor(descriptor, error, {"close"});
}
