#pragma once

#include <future>
#include <memory>
#include <string>

#include "Data Channel/ZPKDataChannelManager.h"
#include "Support/ScriptedChannel.h"
#include "Utility/ZPKValue.h"

namespace support {

// Where a manager's loop runs: on the thread that calls listen, or on one of its own.
inline constexpr bool kUndetached = true;
inline constexpr bool kDetached = false;

/// A manager that reads archives of the default serializer.
ZPKDataChannelManagerPtr makeManager(const ZPKDataChannelPtr& channel,
                                     const ZPKDataChannelManagerDelegatePtr& delegate,
                                     bool option = kUndetached);

/// What such a manager reads as `value`.
ZPKDataPtr archive(const ZPKValue& value);

/// Whether a loop runs on a thread of this name, which the system may have truncated.
bool isNameOfLoop(const std::string& name);

/// The name of the calling thread.
std::string nameOfThisThread();

/// A channel that waits in each read for `release`, and then does what it is told.
std::shared_ptr<ScriptedChannel> makeBlockedChannel(const std::shared_future<void>& release);

/// Releases a manager and waits until its loops have released it too.
void releaseManager(ZPKDataChannelManagerPtr* manager);

}  // namespace support
