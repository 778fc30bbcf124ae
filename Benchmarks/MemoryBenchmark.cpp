// What an open stack keeps resident.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

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

void openStacks(const Device& device, size_t count, std::vector<ZPKCommStackPtr>& stacks) {
  for (size_t i = 0; i < count; ++i) {
    stacks.push_back(openStack(device.url(), "> "));
    if (stacks.back()->sendCommandString("ping", 10.0) != "pong\n> ") std::exit(1);
  }
}

}  // namespace

void benchmarkMemory() {
  printHeader("Resident memory of an open stack");
  const Device device(Transport::Unix, -1, true);
  std::vector<ZPKCommStackPtr> stacks;
  stacks.reserve(kStacks + 10);
  openStacks(device, 10, stacks);  // what is paid once for all of them
  const double before = residentBytes();
  openStacks(device, kStacks, stacks);
  const double each = (residentBytes() - before) / static_cast<double>(kStacks);
  printRow("500 stacks over unix sockets, after one command each", "2.5 KiB each",
           number(each / 1024, 2) + " KiB");
}
