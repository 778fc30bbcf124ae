#include <ZephalConsole/Console.h>
#include <ZephalSimulator/SimulatedDevice.h>

#include <cstdio>

// Asks a simulated device through the console library, and catches what that throws.
int main() {
  const zephal::SimulatedDevice device(zephal::DeviceKind::kUnix,
                                       {.responses = {{"volts", "3.25 V\n"}}});
  zephal::Console console(device.url(), {.prompt = "=> "});
  std::printf("%.2f\n", console.ask("volts", zephal::regex("([0-9.]+) V")).number(1));
  try {
    console.ask("volts", "ampere");
  } catch (const zephal::NoMatch& error) {
    std::printf("no match in %s", error.answer().c_str());
  }
}
