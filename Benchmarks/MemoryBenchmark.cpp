// How much resident memory an open stack adds.
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

// Without the pages of the libraries' files, which are read in as they are used for the first time.
double residentBytes() {
  char line[256];
  long kibibytes = -1;
  std::FILE* file = std::fopen("/proc/self/smaps_rollup", "r");
  if (file == nullptr) std::exit(1);
  while (kibibytes < 0 && std::fgets(line, sizeof line, file) != nullptr) {
    if (std::sscanf(line, "Anonymous: %ld", &kibibytes) != 1) kibibytes = -1;
  }
  std::fclose(file);
  if (kibibytes < 0) std::exit(1);
  return static_cast<double>(kibibytes) * 1024;
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
