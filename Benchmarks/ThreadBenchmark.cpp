// Stacks of their own in threads of their own: whether one holds another up. Over channels in
// memory, so that the threads never sleep in a system call.
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks.h"
#include "Device.h"
#include "Exact/MemoryChannel.h"
#include "Measure.h"

namespace {

constexpr size_t kWidth = 80;
constexpr size_t kLines = 500000;

ZPKCommStackPtr stackOnMemory() {
  std::string text;
  while (text.size() < 1024 * kWidth) text += std::string(kWidth - 1, 'x') + "\n";
  const auto stack = ZPKCommStack::init();
  stack->setDelimiter("\n");
  const auto channel = std::make_shared<MemoryChannel>(text, 65536);
  if (!stack->createStackWithBaseChannel(channel)) std::exit(1);
  if (!stack->openWithTimeout(std::nullopt)) std::exit(1);
  return stack;
}

void readLines() {
  const ZPKCommStackPtr stack = stackOnMemory();
  for (size_t i = 0; i < kLines; ++i) {
    const ZPKDataPtr line = stack->readDataWithTimeout(10, nullptr);
    if (line == nullptr || line->length() != kWidth) std::exit(1);
  }
}

void readInThreads(size_t count) {
  std::vector<std::thread> threads;
  for (size_t i = 0; i < count; ++i) threads.emplace_back(readLines);
  for (std::thread& thread : threads) thread.join();
}

// How often a thread of this process has gone to sleep.
double waits() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) std::exit(1);
  return static_cast<double>(usage.ru_nvcsw);
}

}  // namespace

void benchmarkThreads(int rounds) {
  printHeader("Stacks in threads, a line of 80 bytes in memory, on all CPUs");
  pinTo(-1);
  const size_t count = std::max(2U, std::thread::hardware_concurrency());
  const double waitsBefore = waits();
  const Contest contest = compareTimed(
      rounds, [&] { return secondsFor([] { readInThreads(1); }); },
      [&] { return secondsFor([&] { readInThreads(count); }) / static_cast<double>(count); });
  const double lines = static_cast<double>(kLines * (count + 1)) * (rounds + 1);
  printRow(std::to_string(count) + " threads against one, rate at the same CPU time", "1.0",
           eachOf(contest, kLines, "one", "each"));
  printRow("times that a thread went to sleep, a million lines", "reported",
           number((waits() - waitsBefore) / lines * 1e6, 2));
  pinTo(kClientCPU);
}
