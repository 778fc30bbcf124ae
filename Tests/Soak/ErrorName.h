#pragma once

#include <ZephalIO/ZephalIO.h>

#include <string>
#include <string_view>

namespace soak {

/// Where an operation failed and with which domain and code, as reports show it.
std::string errorName(std::string_view place, const ZPKErrorPtr& error);

/// The same for an open, which has no error but an errno if it is refused.
std::string openErrorName(std::string_view place, const ZPKErrorPtr& error, int number);

}  // namespace soak
