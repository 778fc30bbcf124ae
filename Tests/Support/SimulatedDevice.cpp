#include "Support/SimulatedDevice.h"

#include "Support/SystemCalls.h"

namespace support {

namespace {

[[maybe_unused]] const bool areThreadsExempt = [] {
  SimulatedDevice::setThreadStart(SystemCalls::exemptThisThread);
  return true;
}();

}  // namespace

}  // namespace support
