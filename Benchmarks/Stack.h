#pragma once

#include <ZephalIO/ZephalIO.h>

#include <functional>
#include <string>

/// An open stack on a device; ends the program if that fails. `configure` changes further settings.
ZPKCommStackPtr openStack(const std::string& url, const std::string& delimiter,
                          const std::function<void(ZPKCommStack&)>& configure = nullptr);
