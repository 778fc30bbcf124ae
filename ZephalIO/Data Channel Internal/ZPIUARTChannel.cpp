#include "Data Channel Internal/ZPIUARTChannel.h"

std::shared_ptr<ZPIUARTChannel> ZPIUARTChannel::initForURL(const ZPKURLPtr& url,
                                                           const ZPKOptionsPtr& options) {
  if (url == nullptr) return nullptr;
  auto merged = ZPKOptions::init();
  merged->merge(defaultConfig());
  merged->merge(options);
  return std::make_shared<ZPIUARTChannel>(Key(), url, merged);
}

ZPIUARTChannel::ZPIUARTChannel(Key, const ZPKURLPtr& url, const ZPKOptionsPtr& options)
    : _handle(std::make_unique<Handle>(-1, ZPIUARTLifetimePolicy(url, options))) {}

bool ZPIUARTChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _handle->openWithTimeout(timeout, error);
}

bool ZPIUARTChannel::close(ZPKErrorPtr* error) { return _handle->close(error); }

bool ZPIUARTChannel::reset(ZPKErrorPtr* error) {
  if (!isOpened()) return true;
  ZPKReportFailure(error, kZPICommunicationDomain, 1, {"-[ZPIUARTChannel reset:]"},
                   "Reset not supported while channel is open");
  return false;
}

bool ZPIUARTChannel::isOpened() const { return _handle->isOpen(); }

ZPKDataPtr ZPIUARTChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _handle->readWithTimeout(timeout, error);
}

bool ZPIUARTChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return _handle->write(data, error);
}

std::optional<ZPKDataPtr> ZPIUARTChannel::readOnto(ZPKMutableData* held, double timeout,
                                                   ZPKErrorPtr* error) {
  return _handle->readOnto(held, timeout, error);
}

bool ZPIUARTChannel::checkURL(const ZPKURLPtr& url) {
  return url != nullptr && url->scheme() == "uart";
}

ZPKOptionsPtr ZPIUARTChannel::defaultConfig() {
  auto options = ZPKOptions::init();
  options->set(ZEPHAL_COMMUNICATION_UART_MODE, "8N1");
  options->set(ZEPHAL_COMMUNICATION_UART_BAUD, 115200);
  options->set(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, true);
  return options;
}
