#include "SimulatedDevice.h"

#include <mutex>
#include <utility>

#include "ConsolePlayer.h"
#include "DeviceRunner.h"
#include "RecordingPlayer.h"

namespace zephal {

namespace {

struct ThreadStart {
  std::mutex mutex;
  std::function<void()> function;
};

// Made when it is first used, since a program may set it before its main function.
ThreadStart& threadStart() {
  static ThreadStart start;
  return start;
}

std::function<void()> currentThreadStart() {
  const std::lock_guard guard(threadStart().mutex);
  return threadStart().function;
}

}  // namespace

SimulatedDevice::SimulatedDevice(Place place) : SimulatedDevice(std::move(place), Behaviour()) {}

SimulatedDevice::SimulatedDevice(Place place, Behaviour behaviour)
    : _runner(std::make_unique<DeviceRunner>(std::move(place), std::move(behaviour),
                                             std::make_unique<ConsolePlayer>(),
                                             currentThreadStart())) {}

SimulatedDevice::SimulatedDevice(Place place, const DeviceRecording& recording)
    : _runner(std::make_unique<DeviceRunner>(std::move(place), Behaviour(),
                                             std::make_unique<RecordingPlayer>(recording),
                                             currentThreadStart())) {}

SimulatedDevice::~SimulatedDevice() = default;

const std::string& SimulatedDevice::url() const { return _runner->line().url(); }
const std::string& SimulatedDevice::path() const { return _runner->line().place().path; }
int SimulatedDevice::port() const { return _runner->line().place().port; }

void SimulatedDevice::setBehaviour(Behaviour behaviour) {
  _runner->setBehaviour(std::move(behaviour));
}

std::string SimulatedDevice::received() const { return _runner->received(); }
std::vector<std::string> SimulatedDevice::commands() const { return _runner->commands(); }
std::vector<std::string> SimulatedDevice::unknownCommands() const {
  return _runner->unknownCommands();
}
size_t SimulatedDevice::connections() const { return _runner->connections(); }
bool SimulatedDevice::hasSentAll() const { return _runner->hasSentAll(); }

bool SimulatedDevice::waitForReceived(std::string_view bytes,
                                      std::chrono::milliseconds limit) const {
  return _runner->waitForReceived(bytes, limit);
}

bool SimulatedDevice::waitForCommands(size_t count, std::chrono::milliseconds limit) const {
  return _runner->waitForCommands(count, limit);
}

bool SimulatedDevice::waitForConnections(size_t count, std::chrono::milliseconds limit) const {
  return _runner->waitForConnections(count, limit);
}

bool SimulatedDevice::waitUntilAllIsSent(std::chrono::milliseconds limit) const {
  return _runner->waitUntilAllIsSent(limit);
}

bool SimulatedDevice::waitUntilOn(std::chrono::milliseconds limit) const {
  return _runner->waitUntilOn(limit);
}

void SimulatedDevice::forgetReceived() { _runner->forgetReceived(); }
void SimulatedDevice::send(std::string_view bytes) { _runner->send(bytes); }
void SimulatedDevice::hangUp() { _runner->hangUp(); }
void SimulatedDevice::resetConnection() { _runner->resetConnection(); }
void SimulatedDevice::stopListening() { _runner->stopListening(); }
void SimulatedDevice::powerOff() { _runner->powerOff(std::nullopt); }
void SimulatedDevice::powerOn() { _runner->powerOn(); }
void SimulatedDevice::reboot(std::chrono::milliseconds away) { _runner->powerOff(away); }
bool SimulatedDevice::isOn() const { return _runner->isOn(); }
void SimulatedDevice::liftExclusiveHold() { _runner->liftExclusiveHold(); }

void SimulatedDevice::setThreadStart(std::function<void()> start) {
  const std::lock_guard guard(threadStart().mutex);
  threadStart().function = std::move(start);
}

}  // namespace zephal
