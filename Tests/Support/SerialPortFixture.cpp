#include "Support/SerialPortFixture.h"

#include <unistd.h>

#include <cstring>

#include "Utility/ZPKConstants.h"

namespace support {

ZPKOptionsPtr optionsOf(ZPKNumber baud, const std::string& mode, bool isExclusive) {
  auto options = ZPKOptions::init();
  options->set(ZEPHAL_COMMUNICATION_UART_BAUD, baud);
  options->set(ZEPHAL_COMMUNICATION_UART_MODE, mode);
  options->set(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, isExclusive);
  return options;
}

std::string numbered(int number) {
  return std::string(std::strerror(number)) + "(" + std::to_string(number) + ")";
}

Port::~Port() {
  if (descriptor >= 0) ::close(descriptor);
}

bool Port::open(const std::string& url, const ZPKOptionsPtr& options, ZPKErrorPtr* error) {
  return ZPIUARTLifetimePolicy::openPortWithError__no_cleanup(
      &descriptor, ZPKURL::initWithString(url), options, error);
}

}  // namespace support
