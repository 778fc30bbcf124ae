#include "Soak/Station.h"

#include <ZephalLogging/ZephalLogging.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "Soak/ConsoleWorker.h"
#include "Soak/RecorderWorker.h"
#include "Soak/StackWorker.h"

namespace soak {

namespace {

using std::chrono::milliseconds;

// A worker that needs longer to come to rest is stuck.
constexpr std::chrono::seconds kLongestSession{300};

enum Kind { kRecorder, kConsole, kStack };

struct Role {
  Kind kind;
  StackLayers layers;
};

// Three transports take turns below these.
Role roleOf(int device) {
  switch (device / 3 % 11) {
    case 0: return {kStack, {}};
    case 1: return {kStack, {.hasLogs = true}};
    case 2: return {kStack, {.hasReader = true}};
    case 3: return {kStack, {.hasReader = true, .hasLogs = true}};
    case 4: return {kStack, {.hasLogs = true, .hasFilter = true}};
    case 5: return {kStack, {.hasLogs = true, .removesEcho = true}};
    case 6: return {kStack, {.hasReader = true, .hasLogs = true, .removesEcho = true}};
    case 7: return {kStack, {.hasLogs = true, .hasEchoChannel = true}};
    case 8:
      return {kStack, {.hasReader = true, .hasLogs = true, .hasFilter = true, .hasDelay = true}};
    case 9: return {kRecorder, {}};
    default: return {kConsole, {}};
  }
}

zephal::DevicePlace placeOf(int device, const std::string& folder) {
  const std::string path = folder + "/" + std::to_string(device);
  if (device % 3 == 0) return zephal::DevicePlace::terminalAt(path);
  if (device % 3 == 1) return zephal::DevicePlace::unixAt(path);
  return {zephal::DeviceKind::kTCP};
}

DeviceHabits habitsOf(const Role& role) {
  return {.echoes = role.layers.removesEcho || role.layers.hasEchoChannel,
          .isNoisy = role.layers.hasFilter,
          .talks = role.kind == kRecorder};
}

}  // namespace

std::vector<DevicePlan> Station::devicePlans(const Options& options, const std::string& folder) {
  std::vector<DevicePlan> plans;
  for (int device = 0; device < options.stacks; ++device) {
    plans.push_back({placeOf(device, folder), habitsOf(roleOf(device))});
  }
  return plans;
}

Station::Station(const Options& options, std::string folder, std::vector<std::string> urls,
                 SharedState* state)
    : _options(options),
      _folder(std::move(folder)),
      _urls(std::move(urls)),
      _state(state),
      _begin(std::chrono::steady_clock::now()) {
  ZPKLoggingSetSink([this](int, std::string_view) { ++_tally.messages; });
  for (int device = 0; device < _options.stacks; ++device) _workers.push_back(workerFor(device));
}

Station::~Station() { ZPKLoggingSetSink(nullptr); }

std::unique_ptr<Worker> Station::workerFor(int device) const {
  const Role role = roleOf(device);
  WorkerPlace place{device,
                    _urls[static_cast<size_t>(device)],
                    _folder,
                    _options.seed * 1000 + static_cast<uint64_t>(device),
                    &_state->devices[device],
                    &_tally,
                    &_gate};
  if (role.kind == kRecorder) return std::make_unique<RecorderWorker>(std::move(place));
  if (role.kind == kConsole) return std::make_unique<ConsoleWorker>(std::move(place));
  return std::make_unique<StackWorker>(std::move(place), role.layers);
}

double Station::elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - _begin).count();
}

bool Station::work(const std::function<void()>& counted) {
  const std::chrono::duration<double> shift(std::clamp(_options.seconds / 12, 1.0, 60.0));
  count();
  while (elapsed() < _options.seconds) {
    if (!workFor(shift)) return false;
    count();
    counted();
  }
  return true;
}

// The threads end too, since the library may keep memory for each.
bool Station::workFor(std::chrono::duration<double> time) {
  std::vector<std::thread> threads;
  _gate.open(_workers.size());
  for (const auto& worker : _workers) {
    threads.emplace_back([this, &worker] { worker->run(&_gate); });
  }
  std::this_thread::sleep_for(time);
  const bool isEmpty = _gate.close(kLongestSession);
  for (std::thread& thread : threads) isEmpty ? thread.join() : thread.detach();
  return isEmpty;
}

// Threads that the library has let go end a little later.
void Station::count() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  Census census = Census::take(elapsed());
  const size_t wanted = _censuses.empty() ? census.threads : _censuses.front().threads;
  while (census.threads > wanted && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(10));
    census = Census::take(elapsed());
  }
  _censuses.push_back(census);
}

}  // namespace soak
