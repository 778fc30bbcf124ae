#include "Data Channel/ZPIBaseChannelForURL.h"

#include <string>

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

std::optional<ZPKDataChannelPtr> ZPIBaseChannelForURL(const ZPKURLPtr& url, ZPKErrorPtr* error) {
  if (url == nullptr) return std::nullopt;
  const std::string scheme = url->scheme().value_or("");
  if (scheme == "uart") return createUARTChannel(url, optionsFromQuery(*url), error);
  if (scheme == "tcp" || scheme == "unix") return createActiveTCPChannel(url, error);
  return std::nullopt;
}
