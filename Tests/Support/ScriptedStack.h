#pragma once

#include <memory>
#include <string>

#include "Data Stack/ZPKCommStack.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/ScriptedChannel.h"

namespace support {

/// A comm stack whose chain ends in a scripted channel; both are open.
struct ScriptedStack {
  ScriptedStack() { stack->createStackWithBaseChannel(base); }

  ZPKCommStack* operator->() const { return stack.get(); }

  std::shared_ptr<ScriptedChannel> base = ScriptedChannel::make();
  ZPKCommStackPtr stack = ZPKCommStack::init();
};

/// A failure that the comm stack reports itself, at an operation such as "close:".
inline ExpectedFailure commStackFailure(int code, std::string description,
                                        const std::string& operation) {
  return {"zephal-commchannel", code, std::move(description), "-[ZPKCommStack " + operation + "]",
          "ZPKCommStack.cpp"};
}

/// Text from a device or a caller, which must never be used as a format string.
inline constexpr const char* kFormatText = "100%@ %s%n%d %% %1$s";

}  // namespace support
