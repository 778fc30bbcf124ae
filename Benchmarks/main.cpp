// Compares the library with plain loops of the same system calls and with other libraries, as
// ratios within one run.
//
//     zephalio-benchmarks [NAME|all] [ROUNDS]
//     zephalio-benchmarks idle [SECONDS]
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Benchmarks.h"
#include "Device.h"

namespace {

constexpr int kRounds = 9;
constexpr int kIdleSeconds = 60;

struct Benchmark {
  const char* name;
  void (*run)(int rounds);
};

constexpr Benchmark kBenchmarks[] = {
    // Memory first: a heap that other benchmarks have used would hide the stacks' memory.
    {"memory", [](int /*rounds*/) { benchmarkMemory(); }},
    {"faults", [](int /*rounds*/) { benchmarkPageFaults(); }},
    {"roundtrip", benchmarkRoundTrips},
    {"flood", benchmarkFlood},
    {"long", benchmarkLongResponses},
    {"active", benchmarkActiveChannel},
    {"logging", benchmarkLogging},
    {"transformers", benchmarkTransformers},
    {"serializer", benchmarkSerializer},
    {"messages", benchmarkMessages},
    {"threads", benchmarkThreads},
    {"console", benchmarkConsole},
};

int printUsage() {
  std::fputs("usage: zephalio-benchmarks [NAME|all] [ROUNDS]\nNAME is one of", stderr);
  for (const Benchmark& benchmark : kBenchmarks) std::fprintf(stderr, " %s", benchmark.name);
  std::fputs("\n       zephalio-benchmarks idle [SECONDS]\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  pinTo(kClientCPU);
  const std::string which = argc > 1 ? argv[1] : "all";
  const int number = argc > 2 ? std::atoi(argv[2]) : which == "idle" ? kIdleSeconds : kRounds;
  if (number < 1) return printUsage();
  if (which == "idle") {  // takes a minute, so it is not part of "all"
    benchmarkIdle(number);
    return 0;
  }
  bool isKnown = false;
  for (const Benchmark& benchmark : kBenchmarks) {
    if (which != "all" && which != benchmark.name) continue;
    benchmark.run(number);
    isKnown = true;
  }
  return isKnown ? 0 : printUsage();
}
