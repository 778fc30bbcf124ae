#pragma once

#include <ZephalIO/ZephalIO.h>

#include <functional>
#include <string>

/// An open stack on a device, or the end of the program. `configure` makes further settings.
ZPKCommStackPtr openStack(const std::string& url, const std::string& delimiter,
                          const std::function<void(ZPKCommStack&)>& configure = nullptr);
