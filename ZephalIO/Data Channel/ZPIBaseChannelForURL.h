#pragma once

#include <optional>

#include "Data Channel/ZPKDataChannel.h"

/// The base channel of the kind that the URL's scheme names; a serial port gets the options in the
/// URL's query. The channel is null, with the factory's error in the slot, if it cannot be created.
/// For a null URL and for a scheme other than "uart", "tcp" and "unix" there is no value and no
/// error: the caller reports it.
std::optional<ZPKDataChannelPtr> ZPIBaseChannelForURL(const ZPKURLPtr& url, ZPKErrorPtr* error);
