// How much memory of an open stack is resident.
#include <sys/wait.h>
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
           isActive ? "13 KiB each" : "2.5 KiB each", number(each / 1024, 2) + " KiB");
  ::_exit(0);  // closing 500 background readers takes a slice of time each
}

// In a process of its own: a heap that was used before would hide the stacks' memory.
void measureApart(bool isActive) {
  const Device device(Transport::Unix, -1, true);
  const pid_t process = ::fork();
  if (process < 0) std::exit(1);
  if (process == 0) measure(device, isActive);
  int status = 0;
  if (::waitpid(process, &status, 0) < 0 || status != 0) std::exit(1);
}

}  // namespace

void benchmarkMemory() {
  printHeader("Resident memory of an open stack");
  measureApart(false);
  measureApart(true);
}
