// What an open active channel costs while nothing arrives.
#include <ZephalIO/ZephalIO.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"

namespace {

// The voluntary context switches of all threads.
double wakeUps() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_nvcsw);
}

}  // namespace

void benchmarkIdle(int seconds) {
  printHeader("An idle active channel over a unix socket, " + std::to_string(seconds) +
              " seconds long");
  const Device device(Transport::Unix, -1);
  const auto channel = createActiveChannel(createBaseChannelWithTransport(device.url()));
  if (channel == nullptr || !channel->openWithTimeout(10)) std::exit(1);
  const double processorBefore = processorSeconds();
  const double wakeUpsBefore = wakeUps();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double processor = processorSeconds() - processorBefore;
  const double woken = wakeUps() - wakeUpsBefore;
  if (!channel->close()) std::exit(1);
  printRow("CPU time", "reported", number(processor / seconds * 60e3, 2) + " ms a minute");
  printRow("wake-ups", "reported", number(woken / seconds, 1) + " a second");
}
