// What the two stacks do alike with a chain of channels. Each takes the chain's top, which may be
// null, and is called with the stack's lock held, ZPICloseAbandonedChain excepted.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKReportFailure.h"

/// The domain and the place in whose name a failure is reported.
struct ZPIStackSite {
  const char* domain;
  ZPIFailureSite site;
};

/// A timeout as the chain takes it; null is ZEPHAL_COMMUNICATION_TIME_FOREVER.
double ZPISecondsOf(const std::optional<ZPKNumber>& timeout);

/// A number's bool value; null is false.
bool ZPIBoolOf(const std::optional<ZPKNumber>& number);

/// A string of its own; null stays null.
std::optional<std::string> ZPIStringOf(const std::optional<std::string_view>& text);

/// `channel` within an asynchronous logging channel, or `channel` itself for a null path. Null,
/// with the factory's error, if that cannot be made.
ZPKDataChannelPtr ZPIWithLog(const ZPKDataChannelPtr& channel,
                             const std::optional<std::string>& path, const char* identifier,
                             ZPKErrorPtr* error);

/// False for a null chain.
bool ZPIIsOpened(const ZPKDataChannelPtr& chain);

/// Reports code 302 with `message`, and says so, if there is a chain.
bool ZPIRefuseOnceCreated(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error,
                          const ZPIStackSite& site, const char* message);

/// Reports code 303, and says so, if the chain is open.
bool ZPIRefuseWhileOpen(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error,
                        const ZPIStackSite& site);

/// Opens the chain: code 301 if there is none, 303 if it is open.
bool ZPIOpenChain(const ZPKDataChannelPtr& chain, double timeout, ZPKErrorPtr* error,
                  const ZPIStackSite& site);

/// Closes the chain and, if that went well, resets it. False without an error for a null chain.
bool ZPICloseChain(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error);

/// Closes the chain of a stack that goes away, if it is open; what a failure says goes to the log.
void ZPICloseAbandonedChain(const ZPKDataChannelPtr& chain);
