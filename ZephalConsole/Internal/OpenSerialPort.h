#pragma once

#include <memory>

#include "ZPKURL.h"
#include "ZephalConsole/Internal/Line.h"

namespace zephal::internal {

/// Opens the serial port of a "uart" URL and configures it by the URL's query. Throws OpenError.
std::unique_ptr<Line> openSerialPort(const ZPKURL& url);

}  // namespace zephal::internal
