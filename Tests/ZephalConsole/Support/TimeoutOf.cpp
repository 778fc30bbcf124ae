#include "ZephalConsole/Support/TimeoutOf.h"

#include <chrono>
#include <stdexcept>

namespace support {

using namespace std::chrono_literals;

zephal::Timeout timeoutOf(zephal::Console& dut) {
  try {
    dut.expect("never", 50ms);
  } catch (const zephal::Timeout& timeout) {
    return timeout;
  }
  throw std::logic_error("\"never\" has come");
}

zephal::Timeout timeoutWith(const std::string& received, zephal::Console& dut) {
  const auto limit = std::chrono::steady_clock::now() + 20s;
  while (true) {
    zephal::Timeout timeout = timeoutOf(dut);
    if (timeout.received() == received || std::chrono::steady_clock::now() > limit) return timeout;
  }
}

}  // namespace support
