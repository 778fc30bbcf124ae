#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/SimulatedDevice.h"

namespace support {

/// A comm stack that talks to a simulated device; each test runs over every kind of line.
class CommStackFixture : public testing::TestWithParam<SimulatedDevice::Kind> {
 protected:
  using Kind = SimulatedDevice::Kind;
  using Behaviour = SimulatedDevice::Behaviour;

  bool isTerminal() const { return GetParam() == Kind::kTerminal; }

  /// Creates a device, and the stack's chain to it, which is open afterwards.
  void connect(Behaviour behaviour = Behaviour()) {
    device = std::make_unique<SimulatedDevice>(GetParam(), std::move(behaviour));
    ASSERT_TRUE(stack->createStackWithURL(device->url()));
    open();
  }

  /// Opens the chain again.
  void open() {
    // A terminal that somebody else still holds open stays exclusive after a close.
    if (isTerminal()) device->liftExclusiveHold();
    ZPKErrorPtr error;
    ASSERT_TRUE(stack->openWithTimeout(kLong, &error)) << error->description();
    if (!isTerminal()) {
      ASSERT_TRUE(device->waitForConnections(++connectionsMade));
    }
  }

  /// Reads without waiting until the stack holds exactly these bytes.
  bool waitUntilHeld(std::string_view bytes) {
    const bool kept = stack->timeoutIsException();
    stack->setTimeoutIsException(false);
    const bool isHeld = waitFor([&] {
      const ZPKDataPtr data = stack->readDataWithTimeout(0, nullptr);
      EXPECT_TRUE(data != nullptr && data->length() == 0);
      return heldBytes() == bytes;
    });
    stack->setTimeoutIsException(kept);
    return isHeld;
  }

  std::string heldBytes() const { return std::string(stack->aggregator()->buffer()->view()); }

  std::optional<std::string> read(ZPKErrorPtr* error = nullptr) {
    return stack->readStringWithTimeout(kLong, std::nullopt, error);
  }
  std::optional<std::string> ask(std::string_view command, ZPKErrorPtr* error = nullptr) {
    return stack->sendCommandString(command, kLong, error);
  }

  /// A time in seconds that only a failing test waits for.
  static constexpr int kLong = static_cast<int>(kPatience.count());

  LogCapture log;
  std::unique_ptr<SimulatedDevice> device;
  size_t connectionsMade = 0;
  ZPKCommStackPtr stack = [] {
    auto made = ZPKCommStack::init();
    made->setDelimiter("=> ");
    return made;
  }();
};

inline std::string lineKindName(const testing::TestParamInfo<SimulatedDevice::Kind>& tested) {
  switch (tested.param) {
    case SimulatedDevice::Kind::kTerminal: return "OverATerminal";
    case SimulatedDevice::Kind::kTCP: return "OverTCP";
    case SimulatedDevice::Kind::kUnix: return "OverAUnixSocket";
  }
  return "";
}

inline auto allLineKinds() {
  return testing::Values(SimulatedDevice::Kind::kTerminal, SimulatedDevice::Kind::kTCP,
                         SimulatedDevice::Kind::kUnix);
}

}  // namespace support
