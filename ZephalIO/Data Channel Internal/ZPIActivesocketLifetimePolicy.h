#pragma once

#include <cstdint>

#include "Utility/ZPKURL.h"

/// How a connected socket is opened and closed: by connecting to a URL, or not at all for an
/// adopted socket, whose URL is null.
class ZPIActivesocketLifetimePolicy {
 public:
  static constexpr bool kIsSocket = true;

  explicit ZPIActivesocketLifetimePolicy(ZPKURLPtr peer) : url(std::move(peer)) {}

  /// Connects; a failure has no error and no log line, but errno.
  bool acquire(int32_t* descriptor, ZPKErrorPtr* error) const;
  /// The connected socket, or -1 for a refused connection, an unknown scheme or a null URL.
  static int32_t socket_from_url(const ZPKURLPtr& url);
  bool close(int32_t descriptor, ZPKErrorPtr* error) const;

 private:
  ZPKURLPtr url;
};
