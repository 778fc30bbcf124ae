#include "Soak/ConsoleWorker.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace soak {

namespace {

using std::chrono::milliseconds;

constexpr double kPatience = 60;
constexpr double kLook = 0.2;

std::string nameOf(const std::string& place, const zephal::Error& error) {
  return place + ": " + error.domain() + " " + std::to_string(error.code());
}

}  // namespace

ConsoleWorker::ConsoleWorker(WorkerPlace place)
    : Worker(std::move(place)), _checker(_place.device, false, true) {}

void ConsoleWorker::session() {
  beginSession();
  _isBroken = false;
  _isCutDue = false;
  _promptsDue = 0;
  if (std::exchange(_mustRenew, false)) renewDevice();
  _checker.startConnection();
  if (!open()) return release();
  talk();
  if (!_isBroken) drain();
  _console->close();
  _mustRenew = isTerminal() && !_isBroken;
  checkLogs();
  if (random(0, 1) == 0) release();
}

bool ConsoleWorker::open() {
  const bool isOpen = waitUntil([&] {
    try {
      if (_console.has_value()) {
        _console->reopen();
      } else {
        _console.emplace(_place.url, zephal::ConsoleOptions{.prompt = zephal::Pattern("=> "),
                                                            .log = pathOf("log"),
                                                            .rawLog = pathOf("wire.log")});
      }
      return true;
    } catch (const zephal::Error& error) {
      _place.tally->countError(nameOf("open console", error));
      pause(milliseconds(random(5, 60)));
      return false;
    }
  });
  if (!isOpen) _place.tally->addFailure("device " + std::to_string(_place.device) + " stays away");
  return isOpen;
}

bool ConsoleWorker::mustGoOn() const {
  return !_isBroken && !_isCutDue && !_place.gate->isClosed();
}

void ConsoleWorker::talk() {
  const uint32_t count = random(3, 40);
  for (uint32_t done = 0; done < count && mustGoOn(); ++done) {
    command();
    think();
  }
}

void ConsoleWorker::command() {
  const char mode = chooseMode();
  const std::string text = nextCommand(mode, chooseAmount(mode));
  const bool isLate = mode == 'L' || mode == 'S';
  const bool mayAsk = _promptsDue == 0 && !isLate;
  _isCutDue = isCut(mode);
  if (mode != 'S' && !_isCutDue) ++_promptsDue;
  try {
    askOrExpect(mode, text, mayAsk);
  } catch (const zephal::Error& error) {
    fail(_isCutDue ? "cut console" : isLate ? "late or silent console" : "console", error);
  }
}

void ConsoleWorker::askOrExpect(char mode, const std::string& text, bool mayAsk) {
  if (mayAsk && random(0, 1) == 0) {
    const auto begin = std::chrono::steady_clock::now();
    const std::string answer = _console->ask(text, zephal::Seconds(kPatience));
    if (mode == 'N') _place.tally->latencies.add(std::chrono::steady_clock::now() - begin);
    return take(answer + std::string(kPromptEnd));
  }
  _console->send(text);
  expectPrompt(mode == 'L' || mode == 'S' ? random(20, 200) / 1000.0 : kPatience);
}

void ConsoleWorker::expectPrompt(double timeout) {
  const zephal::Hit hit = _console->expect("=> ", zephal::Seconds(timeout));
  if (hit.lost > 0) _place.tally->addFailure("the console dropped bytes");
  take(hit.before + hit.text());
}

void ConsoleWorker::take(const std::string& response) {
  _place.tally->bytesReceived += response.size();
  const uint64_t before = _checker.prompts();
  const Damage damage = _checker.damage();
  _checker.feed(response);
  _promptsDue -= std::min(_promptsDue, _checker.prompts() - before);
  if (_checker.damage() == damage) return;
  _place.tally->addDamage("console", _checker.damage(), _checker.evidence());
  _isBroken = true;
}

void ConsoleWorker::fail(const std::string& place, const zephal::Error& error) {
  _place.tally->countError(nameOf(place, error));
  if (dynamic_cast<const zephal::Timeout*>(&error) == nullptr) _isBroken = true;
}

void ConsoleWorker::drain() {
  const auto isAll = [&] {
    return _place.state->commandsSeen == _commands && !_place.state->isBusy && !_isCutDue &&
           _place.state->tokensSent == _checker.next();
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!isAll() && std::chrono::steady_clock::now() < end) {
    try {
      expectPrompt(kLook);
    } catch (const zephal::Timeout&) {
    } catch (const zephal::Error& error) {
      return fail(_isCutDue ? "cut console" : "drain console", error);
    }
  }
  if (isAll()) {
    ++_place.tally->drained;
    return;
  }
  const std::string device = "device " + std::to_string(_place.device);
  if (_isCutDue) return _place.tally->addFailure(device + " was cut, and no console noticed");
  const Damage missing{(_place.state->tokensSent - _checker.next()) * uint64_t{20}, 0, 0};
  _place.tally->addDamage("end of console", missing, device);
}

void ConsoleWorker::checkLogs() {
  for (const std::string_view name : {"log", "wire.log"}) {
    const LogContent content = LogContent::ofFile(pathOf(name));
    ::unlink(pathOf(name).c_str());
    ++_place.tally->logs;
    _place.tally->logLinesTorn += content.torn;
    if (content.torn > 0) _place.tally->addFailure("torn lines in a console's log");
    checkWritten(content.written);
    checkRead(content.read, _checker);
  }
}

}  // namespace soak
