// Runs random episodes for some seconds: ZephalIOStress SECONDS [SEED [EPISODE]]. It prints the
// seed with which it begins, and each later episode has the next one. SECONDS 0 runs one episode,
// so "ZephalIOStress 0 SEED" repeats the episode of a finding, as far as threads repeat anything.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "Stress/StressRun.h"
#include "Stress/Verdict.h"

int main(int count, char** arguments) {
  if (count < 2 || count > 4) {
    std::fprintf(stderr, "usage: ZephalIOStress SECONDS [SEED [EPISODE]]\n");
    return 2;
  }
  const std::chrono::seconds time(std::strtoll(arguments[1], nullptr, 10));
  const uint64_t seed =
      count > 2 ? std::strtoull(arguments[2], nullptr, 10) : uint64_t{std::random_device()()};
  support::keepStandardOutput();
  support::nameEpisodeOfExceptions();
  support::StressRun run(time, seed, count > 3 ? arguments[3] : "");
  return run.run() ? 0 : 2;
}
