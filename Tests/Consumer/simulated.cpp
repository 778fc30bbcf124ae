#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>

#include <cstdio>

// Asks a simulated device on each kind of line.
int main() {
  using zephal::DeviceKind;
  for (const DeviceKind kind : {DeviceKind::kTerminal, DeviceKind::kTCP, DeviceKind::kUnix}) {
    const zephal::SimulatedDevice device(kind, {.responses = {{"status", "simulated\n"}}});
    const auto stack = ZPKCommStack::init();
    ZPKErrorPtr error;
    if (!stack->setDelimiter("=> ", &error) || !stack->createStackWithURL(device.url(), &error) ||
        !stack->openWithTimeout(std::nullopt, &error)) {
      return 1;
    }
    const auto answer = stack->sendCommandString("status", 30, &error);
    if (!answer.has_value()) return 1;
    std::printf("answer: %s\n", answer->c_str());
  }
}
