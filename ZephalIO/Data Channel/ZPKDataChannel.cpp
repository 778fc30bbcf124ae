#include "Data Channel/ZPKDataChannel.h"

#include <string>

#include "Data Channel Internal/ZPIEndpointSocket.h"
#include "Data Channel Internal/ZPIUARTChannel.h"
#include "Utility/ZPKReportFailure.h"

namespace {

ZPKOptionsPtr optionsFromQuery(const ZPKURL& url) {
  auto options = ZPKOptions::init();
  for (const ZPKURLQueryItem& item : url.queryItems()) {
    if (item.name == "baud") {
      options->set(ZEPHAL_COMMUNICATION_UART_BAUD, ZPKIntegerFromString(item.value));
    } else if (item.name == "mode" && item.value.has_value()) {
      options->set(ZEPHAL_COMMUNICATION_UART_MODE, *item.value);
    } else if (item.name == "mode") {
      options->remove(ZEPHAL_COMMUNICATION_UART_MODE);
    }
  }
  return options;
}

}  // namespace

ZPKDataChannelPtr createUARTChannel(const ZPKURLPtr& url, const ZPKOptionsPtr& options,
                                    ZPKErrorPtr* error) {
  if (!ZPIUARTChannel::checkURL(url)) {
    ZPKReportFailure(error, kZPICommunicationDomain, 3, {"createUARTChannel"},
                     "Provided url %@ not valid", url);
    return nullptr;
  }
  return ZPIUARTChannel::initForURL(url, options);
}

ZPKDataChannelPtr createActiveTCPChannel(const ZPKURLPtr& url, ZPKErrorPtr* error) {
  if (!ZPIEndpointSocket::checkURL(url)) {
    ZPKReportFailure(error, kZPICommunicationDomain, 3, {"createActiveTCPChannel"},
                     "Provided url %@ not valid", url);
    return nullptr;
  }
  return ZPIEndpointSocket::initForURL(url);
}

ZPKDataChannelPtr createActiveTCPChannelWithSocket(int32_t socket, ZPKErrorPtr* error) {
  if (socket == -1) {
    ZPKReportFailure(error, kZPICommunicationDomain, 3, {"createActiveTCPChannelWithSocket"},
                     "Provided socket is not valid");
    return nullptr;
  }
  return ZPIEndpointSocket::initWithSocket(socket);
}

ZPKDataChannelPtr createBaseChannelWithTransport(std::optional<std::string_view> url,
                                                 ZPKErrorPtr* error) {
  const ZPKURLPtr parsed = ZPKURL::initWithString(url);
  const std::string scheme = parsed == nullptr ? "" : parsed->scheme().value_or("");
  if (scheme == "uart") return createUARTChannel(parsed, optionsFromQuery(*parsed), error);
  if (scheme == "tcp" || scheme == "unix") return createActiveTCPChannel(parsed, error);
  ZPKReportFailure(error, kZPICommunicationDomain, 3, {"createBaseChannelWithTransport"},
                   "Invalid URL scheme");
  return nullptr;
}
