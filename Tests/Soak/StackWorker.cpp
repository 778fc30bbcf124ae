#include "Soak/StackWorker.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "Soak/ErrorName.h"

namespace soak {

namespace {

using std::chrono::milliseconds;

// Longer than any answer takes, except those that are late on purpose.
constexpr double kPatience = 60;
constexpr double kLook = 0.2;

bool isTimeout(const ZPKErrorPtr& error) { return error != nullptr && error->code() == 305; }

bool isClosed(const ZPKErrorPtr& error) { return error != nullptr && error->code() == 304; }

uint64_t lineFeedsIn(std::string_view text) {
  return static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

StackWorker::StackWorker(WorkerPlace place, StackLayers layers)
    : Worker(std::move(place)), _layers(layers) {}

void StackWorker::release() { _stack.reset(); }

void StackWorker::session() {
  beginSession();
  _isBroken = false;
  _isCutDue = false;
  _linesReceived = 0;
  _promptsDue = 0;
  if (std::exchange(_mustRenew, false)) renewDevice();
  if (!_checker.has_value()) {
    _checker.emplace(_place.device, false, true);
    if (_layers.removesEcho) _checker->expectEchoes();
  }
  _checker->startConnection();
  if (!open()) return release();
  talk();
  if (!_isBroken) drain();
  close();
  checkLogs();
}

bool StackWorker::open() {
  const bool isOpen = waitUntil([&] {
    ZPKErrorPtr error;
    if (_stack == nullptr && !configure()) return false;
    errno = 0;
    if (_stack->openWithTimeout(std::nullopt, &error)) return true;
    _place.tally->countError(openErrorName("open", error, errno));
    release();
    pause(milliseconds(random(5, 60)));
    return false;
  });
  if (!isOpen) _place.tally->addFailure("device " + std::to_string(_place.device) + " stays away");
  return isOpen;
}

bool StackWorker::configure() {
  ZPKErrorPtr error;
  _stack = ZPKCommStack::init();
  _stack->setDelimiter(kPromptEnd, &error);
  bool isDone = _stack->setActiveChannelOnOff(ZPKNumber(_layers.hasReader), &error);
  if (_layers.hasFilter) isDone = isDone && _stack->setReadFiltersHex({"7e"}, &error);
  if (_layers.hasLogs) {
    isDone = isDone && _stack->setLogFilePath(pathOf("log"), pathOf("wire.log"), &error);
  }
  if (isDone && create(&error)) return true;
  _place.tally->addFailure(errorName("configure", error));
  return false;
}

ZPKDataChannelPtr StackWorker::baseChannel(ZPKErrorPtr* error) const {
  auto channel = createBaseChannelWithTransport(_place.url, error);
  if (_layers.hasEchoChannel) {
    channel = createEchoRemovalChannel(channel, ZPKData::dataWithString("\n"), error);
  }
  return _layers.hasDelay ? createInterCharacterDelayChannel(channel, 20, error) : channel;
}

bool StackWorker::create(ZPKErrorPtr* error) {
  if (!_layers.hasEchoChannel && !_layers.hasDelay) {
    return _stack->createStackWithURL(_place.url, error);
  }
  return _stack->createStackWithBaseChannel(baseChannel(error), error);
}

bool StackWorker::mustGoOn() const { return !_isBroken && !_isCutDue && !_place.gate->isClosed(); }

void StackWorker::talk() {
  const uint32_t count = random(3, 40);
  for (uint32_t done = 0; done < count && mustGoOn(); ++done) {
    command();
    think();
  }
}

void StackWorker::command() {
  char mode = chooseMode();
  // Such a channel loses track of echoes that come in the middle of something else.
  if (_layers.hasEchoChannel && (mode == 'L' || mode == 'S' || mode == 'H')) mode = 'N';
  const bool isPunctual = _promptsDue == 0 && mode == 'N';
  const double timeout = mode == 'L' || mode == 'S' ? random(20, 200) / 1000.0 : kPatience;
  const std::string text = nextCommand(mode, chooseAmount(mode));
  _isCutDue = isCut(mode);
  if (mode != 'S' && !_isCutDue) ++_promptsDue;
  ZPKErrorPtr error;
  _isUnwritten = false;
  const auto begin = std::chrono::steady_clock::now();
  const bool usesEcho = _layers.removesEcho && _promptsDue == 1;
  const ZPKDataPtr response =
      usesEcho ? exchangeWithEcho(text, timeout, &error) : exchange(text, timeout, &error);
  if (isPunctual && response != nullptr) {
    _place.tally->latencies.add(std::chrono::steady_clock::now() - begin);
  }
  if (response != nullptr) return take(response);
  // A command that found the stack closed is in no log.
  if (_isUnwritten) --_commands;
  const bool isLate = mode == 'L' || mode == 'S';
  fail(_isCutDue ? "cut" : isLate ? "late or silent" : "command", error);
}

bool StackWorker::write(const std::string& text, ZPKErrorPtr* error) {
  const bool isWritten = random(0, 1) == 0
                             ? _stack->writeString(text, error)
                             : _stack->writeData(ZPKData::dataWithString(text), error);
  _isUnwritten = !isWritten && isClosed(*error);
  return isWritten;
}

ZPKDataPtr StackWorker::exchange(const std::string& text, double timeout, ZPKErrorPtr* error) {
  const ZPKNumber limit(timeout);
  ZPKDataPtr response;
  switch (random(0, 3)) {
    case 0: response = _stack->sendCommandData(ZPKData::dataWithString(text), limit, error); break;
    case 1:
      response = ZPKData::dataWithString(_stack->sendCommandString(text, limit, error));
      break;
    case 2:
      if (!write(text, error)) return nullptr;
      return ZPKData::dataWithString(_stack->readStringWithTimeout(limit, std::nullopt, error));
    default:
      if (!write(text, error)) return nullptr;
      return _stack->readDataWithTimeout(limit, ZPKData::dataWithString(kPromptEnd), error);
  }
  _isUnwritten = response == nullptr && isClosed(*error);
  return response;
}

ZPKDataPtr StackWorker::exchangeWithEcho(const std::string& text, double timeout,
                                         ZPKErrorPtr* error) {
  const ZPKNumber limit(timeout);
  const auto everything =
      random(0, 1) == 0 ? nullptr : ZPKRegex::initWithPattern("(?s)^(.*)$", error);
  const auto response = ZPKData::dataWithString(
      _stack->sendCommandStringWithEchoRemoval(text, everything, limit, error));
  _isUnwritten = response == nullptr && isClosed(*error);
  return response;
}

void StackWorker::take(const ZPKDataPtr& response) {
  _place.tally->bytesReceived += response->length();
  _linesReceived += 1 + lineFeedsIn(response->view());
  const uint64_t before = _checker->prompts();
  const Damage damage = _checker->damage();
  _checker->feed(response->view());
  _promptsDue -= std::min(_promptsDue, _checker->prompts() - before);
  if (!response->view().ends_with(kPromptEnd)) {
    _place.tally->addFailure("a response without a prompt: " + std::string(response->view()));
  }
  if (_checker->damage() == damage) return;
  _place.tally->addDamage("responses", _checker->damage(), _checker->evidence());
  _isBroken = true;
}

void StackWorker::fail(std::string_view place, const ZPKErrorPtr& error) {
  _place.tally->countError(errorName(place, error));
  if (!isTimeout(error)) _isBroken = true;
}

// Reads all that is still to come, and sees that nothing is missing.
void StackWorker::drain() {
  const auto isAll = [&] {
    const bool isIdle = _place.state->commandsSeen == _commands && !_place.state->isBusy;
    return isIdle && !_isCutDue && _place.state->tokensSent == _checker->next();
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!isAll()) {
    ZPKErrorPtr error;
    const auto response = _stack->readDataWithTimeout(ZPKNumber(kLook), nullptr, &error);
    if (response != nullptr) take(response);
    if (response == nullptr && !isTimeout(error)) return fail(_isCutDue ? "cut" : "drain", error);
    if (std::chrono::steady_clock::now() < end) continue;
    return reportMissing();
  }
  ++_place.tally->drained;
}

void StackWorker::reportMissing() {
  const std::string device = "device " + std::to_string(_place.device);
  if (_isCutDue) return _place.tally->addFailure(device + " was cut, and nobody noticed");
  const Damage missing{(_place.state->tokensSent - _checker->next()) * uint64_t{20}, 0, 0};
  _place.tally->addDamage("end of connection", missing, device);
}

void StackWorker::close() {
  ZPKErrorPtr error;
  const bool isClosed = _stack->close(&error);
  if (!isClosed)
    _place.tally->countError(errorName(_isBroken ? "close after cut" : "close", error));
  _mustRenew = isTerminal() && !_isBroken;
  if (_isBroken || random(0, 1) == 0) release();
}

void StackWorker::checkLogs() {
  if (!_layers.hasLogs) return;
  for (const std::string_view name : {"log", "wire.log"}) {
    const auto isComplete = [&](const LogContent& content) {
      std::string text = content.read;
      std::erase(text, '~');
      StreamChecker checker(_place.device, false, false);
      checker.expectEchoes();
      checker.feed(text);
      return areAllCommands(content.written) && checker.next() >= _checker->next();
    };
    checkLog(name, _stack == nullptr ? logContent(pathOf(name), isComplete)
                                     : LogContent::ofFile(pathOf(name)));
    ::unlink(pathOf(name).c_str());
  }
}

void StackWorker::checkLog(std::string_view name, const LogContent& content) {
  Tally& tally = *_place.tally;
  ++tally.logs;
  tally.logLinesTorn += content.torn;
  if (content.torn > 0) tally.addFailure("torn lines in a log");
  checkWritten(content.written);
  checkRead(content.read, *_checker);
  if (name != "log" || _layers.removesEcho) return;
  // What the caller saw, line by line; the filter works below.
  if (content.readLines == _linesReceived && content.writtenLines == _commands) return;
  const uint64_t due = _linesReceived + _commands;
  const uint64_t found = content.readLines + content.writtenLines;
  tally.logLinesLost += due - std::min(due, found);
  tally.addFailure("log of device " + std::to_string(_place.device) + " has " +
                   std::to_string(found) + " of " + std::to_string(due) + " lines");
}

}  // namespace soak
