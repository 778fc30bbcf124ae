// One command and its response at a time: what the whole chain costs beside the system calls.
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawLoop.h"
#include "Stack.h"

namespace {

constexpr size_t kCommands = 10000;

std::function<void()> rawTalker(const Device& device) {
  return [loop = std::make_shared<RawLoop>(device.connect(), "> ")] {
    for (size_t i = 0; i < kCommands; ++i) {
      loop->write("ping\n");
      if (loop->readResponse() != 7) std::exit(1);
    }
  };
}

std::function<void()> stackTalker(const Device& device, std::optional<ZPKNumber> timeout) {
  return [timeout, stack = openStack(device.url(), "> ")] {
    const ZPKDataPtr command = ZPKData::dataWithString("ping");
    for (size_t i = 0; i < kCommands; ++i) {
      const ZPKDataPtr response = stack->sendCommandData(command, timeout);
      if (response == nullptr || response->length() != 7) std::exit(1);
    }
  };
}

void runOn(Transport transport, std::optional<ZPKNumber> timeout, const char* goal, int rounds) {
  const Device rawDevice(transport, kClientCPU);
  const Device stackDevice(transport, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return rawTalker(rawDevice); },
      [&] { return stackTalker(stackDevice, timeout); });
  printRow(std::string(nameOf(transport)) + ", timeout " +
               (timeout.has_value() ? timeout->stringValue() + " s" : "none"),
           goal, eachOf(contest, kCommands, "raw", "stack"));
}

}  // namespace

void benchmarkRoundTrips(int rounds) {
  printHeader("Round trips of \"ping\", rate against the raw loop without zeroing");
  for (const Transport transport : {Transport::Tcp, Transport::Unix, Transport::Pty}) {
    runOn(transport, std::nullopt, "1.0", rounds);
    runOn(transport, 10, "0.96", rounds);
  }
}
