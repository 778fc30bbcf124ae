// Many stacks at devices that misbehave, for as long as one likes.
//
//     ZephalIOSoak --seconds N --stacks 200 --seed S [--json FILE]
//                  [--python SITE_PACKAGES --script soak-console.py]
//
// The exit status is 0 only if nothing happened that must not.
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Soak/DeviceHost.h"
#include "Soak/Options.h"
#include "Soak/PythonStation.h"
#include "Soak/Report.h"
#include "Soak/SharedState.h"
#include "Soak/Station.h"
#include "Support/TemporaryFolder.h"

namespace {

using soak::Options;

constexpr int kPythonDevices = 9;

// What glibc keeps for each thread counts as in use, and would hide what leaks.
void restartWithoutThreadCaches(char** arguments) {
  constexpr const char* kName = "GLIBC_TUNABLES";
  if (std::getenv(kName) != nullptr) return;
  ::setenv(kName, "glibc.malloc.tcache_count=0", 1);
  ::execv("/proc/self/exe", arguments);
}

std::vector<soak::DevicePlan> plansFor(const Options& options, const std::string& folder) {
  auto plans = soak::Station::devicePlans(options, folder);
  for (int index = 0; !options.python.empty() && index < kPythonDevices; ++index) {
    const std::string path = folder + "/python" + std::to_string(index);
    if (index % 3 == 0) plans.push_back({zephal::DevicePlace::terminalAt(path), {}});
    if (index % 3 == 1) plans.push_back({zephal::DevicePlace::unixAt(path), {}});
    if (index % 3 == 2) plans.push_back({zephal::DeviceKind::kTCP, {.echoes = true}});
  }
  return plans;
}

int run(const Options& options) {
  const support::TemporaryFolder folder;
  soak::SharedState* const state = soak::mapSharedState();
  std::vector<std::string> urls;
  const soak::DeviceHost devices(plansFor(options, folder.path()), options.seed, state, &urls);
  std::optional<soak::PythonStation> python;
  if (!options.python.empty()) {
    const std::vector<std::string> rest(urls.begin() + options.stacks, urls.end());
    python.emplace(options, folder.path(), options.stacks, rest);
  }
  soak::Station station(options, folder.path(), urls, state);
  // A long run that is ended early has its report of the last count.
  const auto writeReport = [&] {
    const soak::Report report(options, station.tally(), *state, station.censuses(), "");
    if (!options.json.empty()) std::ofstream(options.json) << report.json();
  };
  if (!station.work(writeReport)) {
    std::fprintf(stderr, "FAULT a worker is stuck\n");
    std::_Exit(2);
  }
  const std::string pythonReport = python.has_value() ? python->finish() : "";
  if (python.has_value() && !python->isGood()) station.tally().addFailure("Python failed");
  const soak::Report report(options, station.tally(), *state, station.censuses(), pythonReport);
  std::fputs(report.table().c_str(), stdout);
  if (!options.json.empty()) std::ofstream(options.json) << report.json();
  const auto faults = report.faults();
  for (const std::string& fault : faults) std::fprintf(stderr, "FAULT %s\n", fault.c_str());
  return faults.empty() ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
  const auto options = Options::fromArguments(count, arguments);
  if (!options.has_value()) {
    std::fprintf(stderr, "usage: %s --seconds N --stacks N --seed S [--json FILE]\n", arguments[0]);
    return 2;
  }
  restartWithoutThreadCaches(arguments);
  try {
    return run(*options);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 2;
  }
}
