// What a flood makes the kernel do for the heap, in a process of its own: a heap that was used
// before keeps more, and would hide it.
#include <sys/resource.h>

#include <cstdlib>
#include <string>

#include "Apart.h"
#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "Stack.h"

namespace {

constexpr size_t kWidth = 80;
constexpr size_t kLines = 512 * 1024 * 1024 / kWidth;

long pageFaults() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) std::exit(1);
  return usage.ru_minflt;
}

void measure(const Device& device) {
  const ZPKCommStackPtr stack = openStack(device.url(), "\n");
  const long before = pageFaults();
  stack->writeString("flood " + std::to_string(kWidth) + " " + std::to_string(kLines));
  for (size_t i = 0; i < kLines; ++i) {
    const ZPKDataPtr line = stack->readDataWithTimeout(10, nullptr);
    if (line == nullptr || line->length() != kWidth) std::exit(1);
  }
  printRow("512 MiB of 80-byte lines over a unix socket", "4000",
           std::to_string(pageFaults() - before));
}

}  // namespace

void benchmarkPageFaults() {
  printHeader("Page faults");
  const Device device(Transport::Unix, kClientCPU);
  runApart([&] { measure(device); });
}
