#include "Data Channel Internal/ZPIEndpointSocket.h"

#include "Utility/ZPISocket.h"

namespace {

constexpr uint32_t kLargestPort = 65535;

void writeLogLine(const char* line) { ZPKLoggingLog(ZPKLogGetAnchor(), 0, line); }

void checkTCP(const ZPKURL& url) {
  const auto port = static_cast<uint32_t>(url.port().value_or(0));
  if (port > kLargestPort) writeLogLine("Invalid TCP port specification");
  if (url.host().value_or("").empty()) writeLogLine("Invalid TCP host");
}

}  // namespace

std::shared_ptr<ZPIEndpointSocket> ZPIEndpointSocket::initForURL(const ZPKURLPtr& url) {
  if (url == nullptr) return nullptr;
  return std::make_shared<ZPIEndpointSocket>(Key(), -1, url);
}

std::shared_ptr<ZPIEndpointSocket> ZPIEndpointSocket::initWithSocket(int32_t socket) {
  ZPICloseOnExec(socket);
  return std::make_shared<ZPIEndpointSocket>(Key(), socket, nullptr);
}

ZPIEndpointSocket::ZPIEndpointSocket(Key, int32_t socket, const ZPKURLPtr& url)
    : _handle(std::make_unique<Handle>(socket, ZPIActivesocketLifetimePolicy(url))) {}

bool ZPIEndpointSocket::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _handle->openWithTimeout(timeout, error);
}

bool ZPIEndpointSocket::close(ZPKErrorPtr* error) { return _handle->close(error); }

bool ZPIEndpointSocket::reset(ZPKErrorPtr* error) {
  if (!isOpened()) return true;
  ZPKReportFailure(error, kZPICommunicationDomain, 1, {"-[ZPIEndpointSocket reset:]"},
                   "Reset not supported while channel is open");
  return false;
}

bool ZPIEndpointSocket::isOpened() const { return _handle->isOpen(); }

ZPKDataPtr ZPIEndpointSocket::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _handle->readWithTimeout(timeout, error);
}

bool ZPIEndpointSocket::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return _handle->write(data, error);
}

std::optional<ZPKDataPtr> ZPIEndpointSocket::readOnto(ZPKMutableData* held, double timeout,
                                                      ZPKErrorPtr* error) {
  return _handle->readOnto(held, timeout, error);
}

bool ZPIEndpointSocket::checkURL(const ZPKURLPtr& url) {
  if (url == nullptr) return false;
  if (url->scheme() == "tcp") {
    checkTCP(*url);
  } else if (url->scheme() == "unix") {
    if (url->path().empty()) writeLogLine("Invalid unix path");
  } else {
    ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Unsupported scheme '%@' for URL %@", url->scheme(),
                  url->absoluteString());
  }
  return true;
}
