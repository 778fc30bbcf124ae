#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ErrorExpectations.h"
#include "Support/ScriptedChannel.h"

/// A comm stack whose chain stands on a scripted channel; both are open.
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

inline ZPKDataPtr dataOf(std::string_view bytes) { return ZPKData::dataWithString(bytes); }

/// The bytes of `data`, valid UTF-8 or not; null for null.
inline std::optional<std::string> bytesOf(const ZPKDataPtr& data) {
  if (data == nullptr) return std::nullopt;
  return std::string(data->view());
}

/// What an error says; 0 and "" for null, so that a test which misses an error fails and goes on.
inline int codeOf(const ZPKErrorPtr& error) { return error == nullptr ? 0 : error->code(); }
inline std::string descriptionOf(const ZPKErrorPtr& error) {
  return error == nullptr ? std::string() : error->description();
}

/// An error that a scripted channel can fail with.
inline ZPKErrorPtr errorFromBelow() {
  static const ZPKErrorPtr error =
      ZPKError::init("below", 42, {{std::string(ZPKErrorDescriptionKey), "from below"}});
  return error;
}

/// What a device or a caller may send that must never become a format.
inline constexpr const char* kFormatText = "100%@ %s%n%d %% %1$s";
