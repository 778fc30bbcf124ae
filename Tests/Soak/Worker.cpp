#include "Soak/Worker.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace soak {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{60000};
constexpr milliseconds kLook{2};

}  // namespace

bool Worker::waitUntil(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kLook);
  }
  return true;
}

Worker::Worker(WorkerPlace place) : _place(std::move(place)), _random(_place.seed) {}

void Worker::run(Gate* gate) {
  while (!gate->isClosed()) {
    session();
    ++_place.tally->sessions;
  }
  release();
  gate->leave();
}

void Worker::renewDevice() const {
  const uint32_t wanted = ++_place.state->renewalsWanted;
  if (waitUntil([&] { return _place.state->renewalsDone == wanted; })) return;
  _place.tally->addFailure("device " + std::to_string(_place.device) + " does not react");
}

void Worker::beginSession() {
  ++_session;
  _commands = 0;
}

std::string Worker::nextCommand(char mode, uint32_t amount) {
  ++_place.tally->commands;
  std::string text =
      textOf({Token::Kind::kCommand, _place.device, _session, _commands++, mode, amount, 0});
  text.pop_back();  // The stack adds the line feed.
  return text;
}

bool Worker::waitUntilDeviceIsIdle() const {
  return waitUntil(
      [&] { return _place.state->commandsSeen >= _commands && !_place.state->isBusy; });
}

char Worker::chooseMode() {
  const uint32_t choice = random(0, 999);
  if (choice < 700) return 'N';
  if (choice < 780) return 'T';
  if (choice < 860) return 'P';
  if (choice < 890) return 'H';
  if (choice < 920) return 'L';
  if (choice < 940) return 'S';
  if (choice < 950) return 'F';
  if (choice < 975) return 'C';
  return choice < 990 ? 'R' : 'A';
}

uint32_t Worker::chooseAmount(char mode) {
  switch (mode) {
    case 'F': return random(500, 8000);
    case 'L': return random(10, 400);
    case 'C':
    case 'R': return random(0, 300);
    case 'A': return random(50, 2000);
    default: return random(0, 40);
  }
}

void Worker::think() { pause(milliseconds(random(0, 400))); }

void Worker::pause(milliseconds duration) { std::this_thread::sleep_for(duration); }

uint32_t Worker::random(uint32_t from, uint32_t to) {
  return std::uniform_int_distribution<uint32_t>(from, to)(_random);
}

std::string Worker::pathOf(std::string_view name) const {
  return _place.folder + "/" + std::to_string(_place.device) + "." + std::string(name);
}

bool Worker::areAllCommands(const std::string& written) const {
  StreamChecker checker(_place.device, true, false);
  checker.feed(written);
  return checker.next() == _commands && (_commands == 0 || checker.connection() == _session);
}

void Worker::checkWritten(const std::string& written) {
  StreamChecker checker(_place.device, true, false);
  checker.feed(written);
  checker.finish(false);
  _place.tally->addDamage("commands in logs", checker.damage(), checker.evidence());
  _place.tally->logLines += checker.next();
  if (checker.next() == _commands) return;
  _place.tally->logLinesLost += _commands - std::min(_commands, checker.next());
  _place.tally->addFailure("log of device " + std::to_string(_place.device) + " has " +
                           std::to_string(checker.next()) + " of " + std::to_string(_commands) +
                           " commands");
}

void Worker::checkRead(const std::string& read, const StreamChecker& received) {
  std::string text = read;
  std::erase(text, '~');
  StreamChecker checker(_place.device, false, false);
  checker.expectEchoes();
  checker.feed(text);
  // The log may end where the connection was cut.
  checker.finish(true);
  _place.tally->addDamage("answers in logs", checker.damage(), checker.evidence());
  _place.tally->logLines += checker.next();
  if (checker.next() >= received.next()) return;
  _place.tally->logLinesLost += received.next() - checker.next();
  _place.tally->addFailure("log of device " + std::to_string(_place.device) + " has " +
                           std::to_string(checker.next()) + " of " +
                           std::to_string(received.next()) + " answers");
}

}  // namespace soak
