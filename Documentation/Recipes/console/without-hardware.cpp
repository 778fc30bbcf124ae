#include <ZephalConsole/Console.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <string>

using namespace std::chrono_literals;

// What the station does, and what is to be tested.
double temperatureOf(const std::string& url, zephal::Seconds timeout = 10s) {
  zephal::Console dut(url, {.prompt = "=> ", .timeout = timeout});
  return dut.ask("temperature", zephal::regex("([-0-9.]+) C")).number();
}

TEST(StationTest, ATemperatureIsRead) {
  const zephal::SimulatedDevice device(zephal::DeviceKind::kTerminal,
                                       {.responses = {{"temperature", "T1: 21.5 C\n"}}});
  EXPECT_EQ(temperatureOf(device.url()), 21.5);
}

TEST(StationTest, ADeadDeviceIsNoticed) {
  const zephal::SimulatedDevice device(zephal::DeviceKind::kTCP, {.isSilent = true});
  EXPECT_THROW(temperatureOf(device.url(), 100ms), zephal::Timeout);
}
