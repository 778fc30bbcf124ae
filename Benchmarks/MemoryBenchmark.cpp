// How much memory of an open stack is resident.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Apart.h"
#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "Stack.h"

namespace {

constexpr size_t kStacks = 500;

double residentBytes() {
  long total = 0;
  long resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr || std::fscanf(file, "%ld %ld", &total, &resident) != 2) std::exit(1);
  std::fclose(file);
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

void openStacks(const Device& device, bool isActive, size_t count,
                std::vector<ZPKCommStackPtr>& stacks) {
  for (size_t i = 0; i < count; ++i) {
    stacks.push_back(openStack(device.url(), "> ", [isActive](ZPKCommStack& stack) {
      stack.setActiveChannelOnOff(isActive);
    }));
    if (stacks.back()->sendCommandString("ping", 10.0) != "pong\n> ") std::exit(1);
  }
}

void measure(const Device& device, bool isActive) {
  std::vector<ZPKCommStackPtr> stacks;
  stacks.reserve(kStacks + 10);
  openStacks(device, isActive, 10, stacks);  // costs that occur once for all of them
  const double before = residentBytes();
  openStacks(device, isActive, kStacks, stacks);
  const double each = (residentBytes() - before) / static_cast<double>(kStacks);
  printRow(std::string("500 stacks over unix sockets, after one command each") +
               (isActive ? ", background reader on" : ""),
           isActive ? "12.0 KiB each" : "2.0 KiB each", number(each / 1024, 2) + " KiB");
  ::_exit(0);  // closing 500 background readers takes a slice of time each
}

}  // namespace

// Each in a process of its own: a heap that was used before would hide the stacks' memory.
void benchmarkMemory() {
  printHeader("Resident memory of an open stack");
  for (const bool isActive : {false, true}) {
    const Device device(Transport::Unix, -1, true);
    runApart([&] { measure(device, isActive); });
  }
}
