#include "Soak/DeviceHost.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string_view>

#include "Support/ProcessStatus.h"

namespace soak {

namespace {

using std::chrono::milliseconds;
using Devices = std::vector<std::unique_ptr<Device>>;

// How late a renewal that the station asks for may be noticed.
constexpr milliseconds kLongestWait{5};

int waitFor(const Devices& devices, std::vector<pollfd>* polled) {
  polled->clear();
  auto due = Clock::now() + kLongestWait;
  for (const auto& device : devices) {
    const auto events = static_cast<short>(device->wantsToSend() ? POLLIN | POLLOUT : POLLIN);
    polled->push_back({device->descriptor(), events, 0});
    due = std::min(due, device->due());
  }
  const auto rest = std::chrono::ceil<milliseconds>(due - Clock::now());
  return ::poll(polled->data(), polled->size(), std::max(0, static_cast<int>(rest.count())));
}

void serve(const Devices& devices, SharedState* state) {
  std::vector<pollfd> polled;
  for (uint64_t round = 0; !state->mustStop; ++round) {
    waitFor(devices, &polled);
    const auto now = Clock::now();
    for (size_t index = 0; index < devices.size(); ++index) {
      devices[index]->advance(now, polled[index].revents != 0);
    }
    if (round % 1024 == 0) state->devicesResidentKiB = support::processStatus("VmRSS");
  }
}

void writeLine(int descriptor, const std::string& line) {
  const std::string text = line + "\n";
  if (::write(descriptor, text.data(), text.size()) < 0) ::_exit(1);
}

void runDevices(const std::vector<DevicePlan>& plans, uint64_t seed, SharedState* state, int urls) {
  Devices devices;
  for (size_t index = 0; index < plans.size(); ++index) {
    const DevicePlan& plan = plans[index];
    devices.push_back(std::make_unique<Device>(static_cast<int>(index), plan.place, plan.habits,
                                               seed + index, &state->devices[index]));
    writeLine(urls, devices.back()->url());
  }
  ::close(urls);
  serve(devices, state);
}

std::vector<std::string> linesFrom(int descriptor) {
  std::vector<std::string> lines;
  std::string line;
  for (char byte = 0; ::read(descriptor, &byte, 1) == 1;) {
    if (byte != '\n') {
      line += byte;
      continue;
    }
    lines.push_back(std::move(line));
    line.clear();
  }
  return lines;
}

}  // namespace

DeviceHost::DeviceHost(const std::vector<DevicePlan>& plans, uint64_t seed, SharedState* state,
                       std::vector<std::string>* urls)
    : _state(state) {
  int pipe[2];
  if (::pipe(pipe) != 0) std::abort();
  _process = ::fork();
  if (_process == 0) {
    ::close(pipe[0]);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      runDevices(plans, seed, state, pipe[1]);
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "devices: %s\n", failure.what());
      ::_exit(1);
    }
    ::_exit(0);
  }
  ::close(pipe[1]);
  *urls = linesFrom(pipe[0]);
  ::close(pipe[0]);
}

DeviceHost::~DeviceHost() {
  _state->mustStop = true;
  ::waitpid(_process, nullptr, 0);
}

}  // namespace soak
