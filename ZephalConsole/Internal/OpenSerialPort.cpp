#include "ZephalConsole/Internal/OpenSerialPort.h"

#include <fcntl.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "ZephalConsole/Errors.h"

namespace zephal::internal {
namespace {

[[noreturn]] void refuse(const ZPKURL& url, const ZPKErrorPtr& error) {
  if (error == nullptr) {
    throw OpenError("cannot open the serial port", std::string(kConsoleDomain),
                    static_cast<int>(ErrorCode::kOpen), url.absoluteString());
  }
  throw OpenError(error->description(), error->domain(), error->code(), url.absoluteString());
}

// A descriptor of our own, which never blocks. It is opened first, because nobody but root can open
// the port once the channel holds it exclusively.
Descriptor openWithoutBlocking(const ZPKURL& url) {
  Descriptor port(::open(url.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (port.isValid()) return port;
  const int number = errno;
  throw OpenError("cannot open " + url.path() + ": " + std::generic_category().message(number),
                  "POSIX", number, url.absoluteString());
}

// The line, which closes the port; without memory for it the port is closed here.
std::unique_ptr<Line> lineOf(Descriptor descriptor, const ZPKDataChannelPtr& port) {
  const int number = descriptor.number();
  try {
    return std::make_unique<Line>(std::move(descriptor), port);
  } catch (const std::bad_alloc&) {
    Line::closePort(number, *port);
    throw;
  }
}

}  // namespace

std::unique_ptr<Line> openSerialPort(const ZPKURL& url) {
  Descriptor descriptor = openWithoutBlocking(url);
  ZPKErrorPtr error;
  // The channel knows how to set up a port; it stays open only for its hold on it.
  const ZPKDataChannelPtr port = createBaseChannelWithTransport(url.absoluteString(), &error);
  if (port == nullptr || !port->openWithTimeout(0.0, &error)) refuse(url, error);
  return lineOf(std::move(descriptor), port);
}

}  // namespace zephal::internal
