#pragma once

#include <string>

#include "ZephalConsole/Console.h"

namespace support {

/// What a short wait for text that never comes throws.
zephal::Timeout timeoutOf(zephal::Console& dut);

/// The same, when `received` has come; if it does not come in time, with what has come.
zephal::Timeout timeoutWith(const std::string& received, zephal::Console& dut);

}  // namespace support
