// What both stacks do with their arguments, and with a chain of channels where nothing needs to be
// rejected. A chain is passed as its top, which may be null.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKError.h"
#include "Utility/ZPKNumber.h"

/// A timeout in the form that the chain needs; null is ZEPHAL_COMMUNICATION_TIME_FOREVER.
double ZPISecondsOf(const std::optional<ZPKNumber>& timeout);

/// A number's bool value; null is false.
bool ZPIBoolOf(const std::optional<ZPKNumber>& number);

/// A copy of `text`; null stays null.
std::optional<std::string> ZPIStringOf(const std::optional<std::string_view>& text);

/// `channel` wrapped in an asynchronous logging channel, or `channel` itself for a null path. Null,
/// with the factory's error, if that cannot be created.
ZPKDataChannelPtr ZPIWithLog(const ZPKDataChannelPtr& channel,
                             const std::optional<std::string>& path, const char* identifier,
                             ZPKErrorPtr* error);

/// Whether the chain is open; false for a null chain.
bool ZPIIsOpened(const ZPKDataChannelPtr& chain);

/// Closes the chain and, if that succeeds, resets it. False without an error for a null chain.
bool ZPICloseChain(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error);

/// Closes the chain of a stack that is being destroyed, if it is open; a failure is logged.
void ZPICloseAbandonedChain(const ZPKDataChannelPtr& chain);
