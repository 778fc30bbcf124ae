#include "Support/SimulatedDevice.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "Support/CheckedCalls.h"
#include "Support/LineEnds.h"
#include "Support/SystemCalls.h"
#include "Support/TestClock.h"

namespace support {

namespace {

void makeNonblocking(int descriptor) { checked(::fcntl(descriptor, F_SETFL, O_NONBLOCK), "fcntl"); }

void makeRaw(int terminal) {
  termios attributes{};
  checked(::tcgetattr(terminal, &attributes), "tcgetattr");
  ::cfmakeraw(&attributes);
  checked(::tcsetattr(terminal, TCSANOW, &attributes), "tcsetattr");
}

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

}  // namespace

SimulatedDevice::SimulatedDevice(Kind kind, Behaviour behaviour)
    : _kind(kind), _behaviour(std::move(behaviour)) {
  if (kind == Kind::kTerminal) {
    makeTerminal();
  } else {
    makeListener();
  }
  start();
}

SimulatedDevice::~SimulatedDevice() {
  {
    const std::lock_guard guard(_mutex);
    _stops = true;
  }
  wake();
  _thread.join();
  for (int* descriptor : {&_line, &_slave, &_listener, &_wakeRead, &_wakeWrite}) {
    closeIfOpen(descriptor);
  }
}

void SimulatedDevice::makeTerminal() {
  const Terminal terminal = openTerminal();
  _line = terminal.farEnd;
  _slave = terminal.nearEnd;
  _path = terminal.path;
  _url = terminal.url();
  ::chmod(_path.c_str(), 0666);
  makeRaw(_slave);
  makeNonblocking(_line);
}

void SimulatedDevice::makeListener() {
  const bool isTCP = _kind == Kind::kTCP;
  const Listener listener = isTCP ? listenOverTCP() : listenAt(_folder.pathOf("device"));
  _listener = listener.descriptor;
  _port = listener.port;
  _path = listener.path;
  _url = listener.url();
  if (!isTCP) ::chmod(_path.c_str(), 0666);
  makeNonblocking(_listener);
}

void SimulatedDevice::start() {
  int ends[2];
  checked(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), "pipe2");
  _wakeRead = ends[0];
  _wakeWrite = ends[1];
  _thread = std::thread([this] { run(); });
}

void SimulatedDevice::setBehaviour(Behaviour behaviour) {
  {
    const std::lock_guard guard(_mutex);
    _behaviour = std::move(behaviour);
  }
  wake();
}

std::string SimulatedDevice::received() const {
  const std::lock_guard guard(_mutex);
  return _received;
}

std::vector<std::string> SimulatedDevice::commands() const {
  const std::lock_guard guard(_mutex);
  return _commands;
}

size_t SimulatedDevice::connections() const {
  const std::lock_guard guard(_mutex);
  return _connections;
}

bool SimulatedDevice::hasSentAll() const {
  const std::lock_guard guard(_mutex);
  return _steps.empty();
}

bool SimulatedDevice::waitForReceived(std::string_view bytes) const {
  return waitOn([this, bytes] { return _received.find(bytes) != std::string::npos; });
}

bool SimulatedDevice::waitForCommands(size_t count) const {
  return waitOn([this, count] { return _commands.size() >= count; });
}

bool SimulatedDevice::waitForConnections(size_t count) const {
  return waitOn([this, count] { return _connections >= count; });
}

bool SimulatedDevice::waitUntilAllIsSent() const {
  return waitOn([this] { return _steps.empty(); });
}

void SimulatedDevice::send(std::string_view bytes) {
  {
    const std::lock_guard guard(_mutex);
    addStep({.bytes = std::string(bytes), .pause = {}, .ending = Ending::kNone});
  }
  wake();
}

void SimulatedDevice::hangUp() { endConnection(Ending::kHangUp); }

void SimulatedDevice::resetConnection() {
  {
    const std::lock_guard guard(_mutex);
    _steps.clear();
  }
  endConnection(Ending::kReset);
}

void SimulatedDevice::endConnection(Ending ending) {
  size_t endings = 0;
  {
    const std::lock_guard guard(_mutex);
    if (_kind == Kind::kTerminal && _line < 0) return;
    endings = _endings;
    addStep(endingStep(ending));
  }
  wake();
  waitOn([this, endings] { return _endings > endings; });
}

void SimulatedDevice::stopListening() {
  const std::lock_guard guard(_mutex);
  // After only a close it would listen on while our thread waits on it.
  if (_listener >= 0) ::shutdown(_listener, SHUT_RDWR);
  closeIfOpen(&_listener);
}

void SimulatedDevice::liftExclusiveHold() {
  const std::lock_guard guard(_mutex);
  checked(::ioctl(_slave, TIOCNXCL), "TIOCNXCL");
}

void SimulatedDevice::run() {
  SystemCalls::exemptThisThread();
  const RealTime realTime;
  // The signals that a test sends are meant for the code under test.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  while (runOnce()) {
  }
}

// One round of waiting and serving; false when the device must end.
bool SimulatedDevice::runOnce() {
  pollfd entries[3]{};
  int limit = -1;
  {
    const std::lock_guard guard(_mutex);
    if (_stops) return false;
    entries[0] = {_wakeRead, POLLIN, 0};
    entries[1] = {_line < 0 ? _listener : -1, POLLIN, 0};
    const bool sends = wantsToSend();
    entries[2] = {_line, static_cast<short>(sends ? POLLIN | POLLOUT : POLLIN), 0};
    if (!sends) limit = millisecondsUntilNextStep();
  }
  ::poll(entries, 3, limit);
  const std::lock_guard guard(_mutex);
  char drained[64];
  while (::read(_wakeRead, drained, sizeof drained) > 0) {
  }
  if (entries[1].revents != 0 && _line < 0) acceptPeer();
  if (entries[2].revents != 0 && _line == entries[2].fd) receive();
  if (_line >= 0 && wantsToSend()) sendNext();
  _changed.notify_all();
  return true;
}

bool SimulatedDevice::wantsToSend() const {
  if (_line < 0) return false;
  if (_steps.empty()) return _behaviour.floods;
  return Clock::now() >= _stepStart + _steps.front().pause;
}

int SimulatedDevice::millisecondsUntilNextStep() const {
  if (_line < 0 || _steps.empty()) return -1;
  const auto rest = _stepStart + _steps.front().pause - Clock::now();
  const auto whole = std::chrono::duration_cast<std::chrono::milliseconds>(rest).count();
  return static_cast<int>(std::max<int64_t>(0, whole) + 1);
}

void SimulatedDevice::acceptPeer() {
  _line = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (_line < 0) return;
  if (_kind == Kind::kTCP) {
    const int on = 1;
    ::setsockopt(_line, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ++_connections;
  _stepStart = Clock::now();
}

void SimulatedDevice::receive() {
  char buffer[4096];
  const ssize_t count = ::read(_line, buffer, sizeof buffer);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    endLine(Ending::kHangUp);
    return;
  }
  _received.append(buffer, static_cast<size_t>(count));
  _pending.append(buffer, static_cast<size_t>(count));
  takeCommands();
}

void SimulatedDevice::takeCommands() {
  for (;;) {
    const size_t end = _pending.find(_behaviour.terminator);
    if (end == std::string::npos) return;
    const std::string command = _pending.substr(0, end);
    _pending.erase(0, end + _behaviour.terminator.size());
    _commands.push_back(command);
    if (!_behaviour.isSilent) answer(command);
  }
}

void SimulatedDevice::answer(const std::string& command) {
  std::string text = _behaviour.echoes ? command + _behaviour.terminator : "";
  const auto known = _behaviour.responses.find(command);
  if (known != _behaviour.responses.end()) {
    text += known->second;
  } else if (_behaviour.respond) {
    text += _behaviour.respond(command);
  }
  std::vector<size_t> cuts;
  if (_behaviour.splitsPromptAfter.has_value()) {
    cuts.push_back(text.size() + *_behaviour.splitsPromptAfter);
  }
  text += _behaviour.prompt;
  if (_behaviour.hangsUpAfter.has_value())
    text.resize(std::min(text.size(), *_behaviour.hangsUpAfter));
  if (_behaviour.trickles) {
    cuts.clear();
    for (size_t cut = 1; cut < text.size(); ++cut) cuts.push_back(cut);
  }
  size_t start = 0;
  cuts.push_back(text.size());
  for (const size_t cut : cuts) {
    const size_t end = std::min(cut, text.size());
    addStep({.bytes = text.substr(start, end - start),
             .pause = start == 0 ? _behaviour.delay : _behaviour.pause,
             .ending = Ending::kNone});
    start = end;
  }
  if (_behaviour.hangsUpAfter.has_value()) addStep(endingStep(Ending::kHangUp));
}

// Bytes that the peer does not accept stay for the next round.
void SimulatedDevice::sendNext() {
  const bool isFlood = _steps.empty();
  const std::string& bytes = isFlood ? floodChunk() : _steps.front().bytes;
  if (!bytes.empty()) {
    const ssize_t count = _kind == Kind::kTerminal
                              ? ::write(_line, bytes.data(), bytes.size())
                              : ::send(_line, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count < 0) {
      endLine(Ending::kHangUp);
      return;
    }
    if (isFlood) return;
    _steps.front().bytes.erase(0, static_cast<size_t>(count));
    if (!_steps.front().bytes.empty()) return;
  }
  finishStep();
}

void SimulatedDevice::finishStep() {
  const Ending ending = _steps.front().ending;
  _steps.pop_front();
  _stepStart = Clock::now();
  if (ending != Ending::kNone) endLine(ending);
}

void SimulatedDevice::endLine(Ending ending) {
  if (ending == Ending::kReset && _kind == Kind::kTCP) {
    const linger reset{1, 0};
    ::setsockopt(_line, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
  // Unread bytes would turn the close into a reset.
  if (ending == Ending::kHangUp && _kind == Kind::kTCP) {
    ::shutdown(_line, SHUT_WR);
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(_line, buffer, sizeof buffer)) > 0) {
      _received.append(buffer, static_cast<size_t>(count));
    }
  }
  closeIfOpen(&_slave);
  closeIfOpen(&_line);
  _steps.clear();
  _pending.clear();
  ++_endings;
}

SimulatedDevice::Step SimulatedDevice::endingStep(Ending ending) {
  return {.bytes = "", .pause = {}, .ending = ending};
}

void SimulatedDevice::addStep(Step step) {
  const RealTime realTime;
  if (_steps.empty()) _stepStart = Clock::now();
  _steps.push_back(std::move(step));
}

void SimulatedDevice::wake() const {
  const char token = 0;
  // A full pipe wakes the thread as well.
  [[maybe_unused]] const ssize_t written = ::write(_wakeWrite, &token, 1);
}

bool SimulatedDevice::waitOn(const std::function<bool()>& condition) const {
  const RealTime realTime;
  std::unique_lock lock(_mutex);
  return _changed.wait_for(lock, kPatience, condition);
}

}  // namespace support
