#include "Data Channel/ZPKDataChannel.h"

#include "Data Channel Internal/ZPIEndpointSocket.h"
#include "Data Channel Internal/ZPIUARTChannel.h"
#include "Data Channel/ZPIBaseChannelForURL.h"
#include "Utility/ZPKReportFailure.h"

ZPKDataChannel::~ZPKDataChannel() = default;

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
  const auto channel = ZPIBaseChannelForURL(ZPKURL::initWithString(url), error);
  if (channel.has_value()) return *channel;
  ZPKReportFailure(error, kZPICommunicationDomain, 3, {"createBaseChannelWithTransport"},
                   "Invalid URL scheme");
  return nullptr;
}
