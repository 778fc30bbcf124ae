#pragma once

#include <optional>

#include "Data Channel/ZPKDataChannel.h"

/// The base channel of the kind that the URL's scheme names, a serial port with the options of the
/// URL's query. The channel is null, with the factory's error in the slot, if it cannot be made.
/// Nothing at all, and no error, for a scheme other than "uart", "tcp" and "unix" and for a null
/// URL: what that means is the caller's to report.
std::optional<ZPKDataChannelPtr> ZPIBaseChannelForURL(const ZPKURLPtr& url, ZPKErrorPtr* error);
