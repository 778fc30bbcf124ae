// What the two stacks do alike with their arguments and, where nothing is refused, with a chain of
// channels. A chain is given as its top, which may be null.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKError.h"
#include "Utility/ZPKNumber.h"

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

/// Closes the chain and, if that went well, resets it. False without an error for a null chain.
bool ZPICloseChain(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error);

/// Closes the chain of a stack that goes away, if it is open; what a failure says goes to the log.
void ZPICloseAbandonedChain(const ZPKDataChannelPtr& chain);
