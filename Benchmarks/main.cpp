// Measures the library against plain loops of the same system calls, as ratios within one run.
//
//     zephalio-benchmarks [roundtrip|flood|long|memory] [ROUNDS]
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Benchmarks.h"

int main(int argc, char** argv) {
  const std::string which = argc > 1 ? argv[1] : "all";
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 9;
  // Memory first: a heap that other benchmarks have used would hide what the stacks take.
  if (which == "all" || which == "memory") benchmarkMemory();
  if (which == "all" || which == "roundtrip") benchmarkRoundTrips(rounds);
  if (which == "all" || which == "flood") benchmarkFlood(rounds);
  if (which == "all" || which == "long") benchmarkLongResponses(rounds);
  return 0;
}
