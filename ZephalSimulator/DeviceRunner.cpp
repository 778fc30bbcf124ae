#include "DeviceRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <stdexcept>
#include <utility>

#include "CheckedCall.h"
#include "SimulatedDevice.h"

namespace zephal {

namespace {

// How long a peer may take to read what a hang-up takes away, and how often we look, in
// milliseconds.
constexpr std::chrono::milliseconds kLingerLimit{2000};
constexpr int kLingerLook = 2;

// The lines of a flood have a text of their own, which makes a truncated or incomplete flood easy
// to recognise.
const std::string& floodChunk() {
  static const std::string chunk = [] {
    std::string text;
    while (text.size() < 4096) text += "the device talks without an end\r\n";
    return text;
  }();
  return chunk;
}

std::shared_ptr<const DeviceBehaviour> checked(DeviceBehaviour behaviour) {
  if (behaviour.terminator.empty()) {
    throw std::invalid_argument("simulated device: the terminator is empty");
  }
  if (behaviour.translatesLineEnds && behaviour.terminator != "\n") {
    throw std::invalid_argument(
        "simulated device: a console that translates line ends needs a line feed as its "
        "terminator");
  }
  return std::make_shared<const DeviceBehaviour>(std::move(behaviour));
}

}  // namespace

DeviceRunner::DeviceRunner(DevicePlace place, DeviceBehaviour behaviour,
                           std::unique_ptr<DevicePlayer> player, std::function<void()> threadStart)
    : _threadStart(std::move(threadStart)),
      _player(std::move(player)),
      _line(std::move(place)),
      _behaviour(checked(std::move(behaviour))) {
  _line.appear();
  _isOn = true;
  react(_player->start(*_behaviour), "");
  makePipe();
  try {
    _thread = std::thread([this] { run(); });
  } catch (...) {
    closePipe();
    throw;
  }
}

DeviceRunner::~DeviceRunner() {
  {
    const std::lock_guard guard(_mutex);
    _stops = true;
  }
  wake();
  _thread.join();
  closePipe();
}

void DeviceRunner::closePipe() {
  closeDescriptor(&_wakeRead);
  closeDescriptor(&_wakeWrite);
}

void DeviceRunner::makePipe() {
  int ends[2];
  checkedCall(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), "pipe2");
  _wakeRead = ends[0];
  _wakeWrite = ends[1];
}

void DeviceRunner::setBehaviour(DeviceBehaviour behaviour) {
  auto replacement = checked(std::move(behaviour));
  {
    const std::lock_guard guard(_mutex);
    // The old one is destroyed without the mutex, by the time this function ends.
    std::swap(_behaviour, replacement);
  }
  wake();
}

std::string DeviceRunner::received() const {
  const std::lock_guard guard(_mutex);
  return _received;
}

std::vector<std::string> DeviceRunner::commands() const {
  const std::lock_guard guard(_mutex);
  return _commands;
}

std::vector<std::string> DeviceRunner::unknownCommands() const {
  const std::lock_guard guard(_mutex);
  return _unknownCommands;
}

size_t DeviceRunner::connections() const {
  const std::lock_guard guard(_mutex);
  return _connections;
}

bool DeviceRunner::hasSentAll() const {
  const std::lock_guard guard(_mutex);
  return _steps.empty();
}

bool DeviceRunner::isOn() const {
  const std::lock_guard guard(_mutex);
  return _isOn;
}

void DeviceRunner::forgetReceived() {
  const std::lock_guard guard(_mutex);
  _received.clear();
  _commands.clear();
  _unknownCommands.clear();
}

bool DeviceRunner::waitForReceived(std::string_view bytes, Milliseconds limit) const {
  return waitOn([this, bytes] { return _received.find(bytes) != std::string::npos; }, limit);
}

bool DeviceRunner::waitForCommands(size_t count, Milliseconds limit) const {
  return waitOn([this, count] { return _commands.size() >= count; }, limit);
}

bool DeviceRunner::waitForConnections(size_t count, Milliseconds limit) const {
  return waitOn([this, count] { return _connections >= count; }, limit);
}

bool DeviceRunner::waitUntilAllIsSent(Milliseconds limit) const {
  return waitOn([this] { return _steps.empty(); }, limit);
}

bool DeviceRunner::waitUntilOn(Milliseconds limit) const {
  const bool ended = waitOn([this] { return _isOn || _failure != nullptr; }, limit);
  const std::lock_guard guard(_mutex);
  if (_failure != nullptr) std::rethrow_exception(_failure);
  return ended;
}

void DeviceRunner::send(std::string_view bytes) {
  {
    const std::lock_guard guard(_mutex);
    addStep({.bytes = std::string(bytes)});
  }
  wake();
}

void DeviceRunner::hangUp() { endConnection(DeviceEnding::kHangUp); }

void DeviceRunner::resetConnection() {
  {
    const std::lock_guard guard(_mutex);
    _steps.clear();
  }
  endConnection(DeviceEnding::kReset);
}

void DeviceRunner::endConnection(DeviceEnding ending) {
  size_t endings = 0;
  {
    const std::lock_guard guard(_mutex);
    if (!_isOn) return;
    endings = _endings;
    addStep({.ending = ending});
  }
  wake();
  waitFor("end its connection", [this, endings] { return _endings > endings; });
}

void DeviceRunner::stopListening() {
  const std::lock_guard guard(_mutex);
  _line.stopListening();
}

void DeviceRunner::powerOff(std::optional<Milliseconds> away) {
  {
    const std::lock_guard guard(_mutex);
    _mustGoOff = true;
    _away = away;
  }
  wake();
  waitFor("go off", [this] { return !_mustGoOff; });
}

void DeviceRunner::powerOn() {
  {
    const std::lock_guard guard(_mutex);
    if (_isOn) return;
    _returns = Clock::now();
    _failure = nullptr;
  }
  wake();
  waitUntilOn(SimulatedDevice::kPatience);
}

void DeviceRunner::liftExclusiveHold() {
  const std::lock_guard guard(_mutex);
  _line.liftExclusiveHold();
}

void DeviceRunner::run() {
  if (_threadStart) _threadStart();
  // The signals that a test sends are meant for the code under test.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  bool goesOn = true;
  while (goesOn) {
    try {
      goesOn = runOnce();
    } catch (const std::bad_alloc&) {
      fail();
    }
  }
}

// What the device was about to do is lost, so it goes off, as one that breaks.
void DeviceRunner::fail() {
  const std::lock_guard guard(_mutex);
  goOff(std::nullopt);
  _failure = std::current_exception();
  _changed.notify_all();
}

// One round of waiting and serving; false when the device must end.
bool DeviceRunner::runOnce() {
  if (!wait()) return false;
  std::shared_ptr<const DeviceBehaviour> behaviour;
  std::string received;
  {
    const std::lock_guard guard(_mutex);
    behaviour = _behaviour;
    if (_mustGoOff) goOff(std::exchange(_away, std::nullopt));
    received = serveLine();
  }
  if (!received.empty()) react(_player->take(received, *behaviour), received);
  comeBack();
  const std::lock_guard guard(_mutex);
  if (wantsToSend()) sendNext();
  _changed.notify_all();
  return true;
}

bool DeviceRunner::wait() {
  pollfd entries[3]{};
  int limit = -1;
  {
    const std::lock_guard guard(_mutex);
    if (_stops) return false;
    const bool sends = wantsToSend();
    entries[0] = {_wakeRead, POLLIN, 0};
    entries[1] = {_line.acceptor(), POLLIN, 0};
    entries[2] = {_line.descriptor(), static_cast<short>(sends ? POLLIN | POLLOUT : POLLIN), 0};
    if (!sends) limit = millisecondsUntilNext();
  }
  ::poll(entries, 3, limit);
  char drained[64];
  while (::read(_wakeRead, drained, sizeof drained) > 0) {
  }
  return true;
}

// Accepts a peer, and returns what has arrived.
std::string DeviceRunner::serveLine() {
  if (_line.accept()) {
    ++_connections;
    _stepStart = Clock::now();
  }
  if (_line.descriptor() < 0) return "";
  std::optional<std::string> bytes = _line.receive();
  if (!bytes.has_value()) endLine({.ending = DeviceEnding::kHangUp});
  return bytes.value_or("");
}

void DeviceRunner::react(DeviceReaction reaction, std::string_view received) {
  const std::lock_guard guard(_mutex);
  _received += received;
  for (std::string& command : reaction.commands) _commands.push_back(std::move(command));
  for (std::string& command : reaction.unknownCommands) {
    _unknownCommands.push_back(std::move(command));
  }
  for (DeviceStep& step : reaction.steps) addStep(std::move(step));
}

void DeviceRunner::comeBack() {
  const std::lock_guard guard(_mutex);
  if (!_returns.has_value() || Clock::now() < *_returns) return;
  _returns.reset();
  try {
    _line.appear();
  } catch (...) {
    _failure = std::current_exception();
    return;
  }
  _isOn = true;
  for (DeviceStep& step : _player->start(*_behaviour).steps) addStep(std::move(step));
}

// Gives the peer time to read what a hang-up would take away.
bool DeviceRunner::mustLinger() const {
  if (_steps.empty() || _steps.front().ending == DeviceEnding::kNone) return false;
  return _line.isUnread() && Clock::now() < _stepStart + kLingerLimit;
}

bool DeviceRunner::wantsToSend() const {
  if (_line.descriptor() < 0) return false;
  if (_steps.empty()) return _behaviour->floods;
  if (mustLinger()) return false;
  return Clock::now() >= _stepStart + _steps.front().pause;
}

int DeviceRunner::millisecondsUntilNext() const {
  if (mustLinger()) return kLingerLook;
  std::optional<Clock::time_point> next = _returns;
  if (_line.descriptor() >= 0 && !_steps.empty()) next = _stepStart + _steps.front().pause;
  if (!next.has_value()) return -1;
  const auto rest = *next - Clock::now();
  const auto whole = std::chrono::duration_cast<std::chrono::milliseconds>(rest).count();
  return static_cast<int>(std::max<int64_t>(0, whole) + 1);
}

// Bytes that the peer does not accept stay for the next round.
void DeviceRunner::sendNext() {
  const bool isFlood = _steps.empty();
  const std::string& bytes = isFlood ? floodChunk() : _steps.front().bytes;
  if (!bytes.empty()) {
    const std::optional<size_t> count = _line.send(bytes);
    if (!count.has_value()) {
      endLine({.ending = DeviceEnding::kHangUp});
      return;
    }
    if (isFlood) return;
    _steps.front().bytes.erase(0, *count);
    if (!_steps.front().bytes.empty()) return;
  }
  finishStep();
}

void DeviceRunner::finishStep() {
  const DeviceStep step = std::move(_steps.front());
  _steps.pop_front();
  _stepStart = Clock::now();
  if (step.ending != DeviceEnding::kNone) endLine(step);
}

void DeviceRunner::endLine(const DeviceStep& step) {
  if (step.ending == DeviceEnding::kPowerOff) {
    goOff(step.away);
    return;
  }
  if (step.ending == DeviceEnding::kReset) {
    _line.reset();
  } else {
    _received += _line.hangUp();
  }
  // A terminal has gone altogether.
  _isOn = _line.place().kind != DeviceKind::kTerminal;
  _steps.clear();
  _player->endConnection();
  ++_endings;
}

void DeviceRunner::goOff(std::optional<Milliseconds> away) {
  _mustGoOff = false;
  _failure = nullptr;
  _returns.reset();
  if (away.has_value()) _returns = Clock::now() + *away;
  _line.disappear();
  _isOn = false;
  _steps.clear();
  _player->endConnection();
  ++_endings;
}

void DeviceRunner::addStep(DeviceStep step) {
  if (_steps.empty()) _stepStart = Clock::now();
  _steps.push_back(std::move(step));
}

void DeviceRunner::wake() const {
  const char token = 0;
  // A full pipe wakes the thread as well.
  [[maybe_unused]] const ssize_t written = ::write(_wakeWrite, &token, 1);
}

// Waits for something that this device does, `what`; throws if it does not.
void DeviceRunner::waitFor(const char* what, const std::function<bool()>& condition) const {
  if (waitOn(condition, SimulatedDevice::kPatience)) return;
  throw std::runtime_error("simulated device: " + _line.url() + " did not " + what + " in time");
}

bool DeviceRunner::waitOn(const std::function<bool()>& condition, Milliseconds limit) const {
  std::unique_lock lock(_mutex);
  return _changed.wait_for(lock, limit, condition);
}

}  // namespace zephal
