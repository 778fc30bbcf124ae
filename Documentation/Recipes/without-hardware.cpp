#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

// What the station does, and what is to be tested.
std::optional<double> temperatureOf(const std::string& url, double seconds) {
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ");
  if (!stack->createStackWithURL(url) || !stack->openWithTimeout(std::nullopt)) return std::nullopt;
  const auto celsius = ZPKRegex::initWithPattern("([-0-9.]+) C");
  const auto text = stack->sendCommandStringWithEchoRemoval("temperature", celsius, seconds);
  stack->close();
  if (!text.has_value()) return std::nullopt;
  return std::stod(*text);
}

TEST(StationTest, ATemperatureIsRead) {
  const zephal::SimulatedDevice device(zephal::DeviceKind::kTerminal,
                                       {.responses = {{"temperature", "T1: 21.5 C\n"}}});
  EXPECT_EQ(temperatureOf(device.url(), 30.0), 21.5);
}

TEST(StationTest, ADeadDeviceHasNoTemperature) {
  const zephal::SimulatedDevice device(zephal::DeviceKind::kTCP, {.isSilent = true});
  EXPECT_EQ(temperatureOf(device.url(), 0.1), std::nullopt);
}
