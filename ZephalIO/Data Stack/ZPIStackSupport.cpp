#include "Data Stack/ZPIStackSupport.h"

#include <exception>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "ZephalLogging.h"

double ZPISecondsOf(const std::optional<ZPKNumber>& timeout) {
  return timeout.has_value() ? timeout->doubleValue() : ZEPHAL_COMMUNICATION_TIME_FOREVER;
}

bool ZPIBoolOf(const std::optional<ZPKNumber>& number) {
  return number.has_value() && number->boolValue();
}

std::optional<std::string> ZPIStringOf(const std::optional<std::string_view>& text) {
  if (!text.has_value()) return std::nullopt;
  return std::string(*text);
}

ZPKDataChannelPtr ZPIWithLog(const ZPKDataChannelPtr& channel,
                             const std::optional<std::string>& path, const char* identifier,
                             ZPKErrorPtr* error) {
  if (!path.has_value()) return channel;
  return createLoggingChannel(channel, *path, identifier, false, error);
}

bool ZPIIsOpened(const ZPKDataChannelPtr& chain) { return chain != nullptr && chain->isOpened(); }

bool ZPICloseChain(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error) {
  return chain != nullptr && chain->close(error) && chain->reset(error);
}

// For destructors, which must not throw: without memory, a failure goes unreported.
void ZPICloseAbandonedChain(const ZPKDataChannelPtr& chain) {
  try {
    if (!ZPIIsOpened(chain)) return;
    ZPKErrorPtr error;
    if (chain->close(&error)) return;
    ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Error closing commChannel during dealloc : %@", error);
  } catch (const std::exception&) {
    return;
  }
}
