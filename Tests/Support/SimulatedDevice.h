// Simulated devices, whose threads are exempt from SystemCalls. Their calls, and their time, are
// not intercepted anyway, since they come from a shared library; their allocations would be
// counted.
#pragma once

#include <ZephalSimulator/SimulatedDevice.h>

namespace support {

using zephal::SimulatedDevice;

}  // namespace support
