#pragma once

#include <memory>
#include <string>

#include "ZephalConsole/Internal/Line.h"
#include "ZephalConsole/Internal/Stop.h"

namespace zephal::internal {

/// Opens the line that a URL names. Throws OpenError with the reason; a time limit that passes and
/// whatever else ends the operation are reasons too (ETIMEDOUT, ECANCELED).
std::unique_ptr<Line> openLine(const std::string& url, const Stop& stop, const Wakeup& wakeup);

}  // namespace zephal::internal
