#include "Faults/ConsoleStation.h"

#include <atomic>
#include <chrono>
#include <new>
#include <thread>
#include <utility>

#include "Faults/FurtherCalls.h"
#include "Support/EventWait.h"
#include "Support/Files.h"

namespace support {

namespace {

using zephal::Console;
using zephal::DeviceAnswer;
using zephal::regex;

// By a clock that runs faster than the real one; only a failing trial waits so long.
constexpr std::chrono::seconds kLimit(900);
constexpr std::chrono::seconds kShortLimit(60);

// A server's greeting: it wants to be told the baud rate, and echoes.
constexpr const char* kTelnetGreeting = "\xff\xfd\x2c\xff\xfb\x01\xff\xfe\x03=> ";

// What a telnet client says comes in front of a command.
DeviceAnswer answerTo(const std::string& command) {
  if (command.ends_with("version")) return "1.0\n";
  if (command.ends_with("probe")) return "here\n";
  if (command.ends_with("silence")) return DeviceAnswer::silence();
  if (command.ends_with("bye")) return DeviceAnswer::hangUp();
  if (command.ends_with("reboot")) return DeviceAnswer::reboot();
  if (command.ends_with("echo $?")) return "3\n";
  return {};
}

zephal::DeviceBehaviour behaviourOf(const ConsoleStation::Line& line, bool hasLogin) {
  zephal::DeviceBehaviour behaviour;
  behaviour.bootText = line.isTelnet ? kTelnetGreeting : "\x1b[1mbooted\x1b[m\n";
  if (hasLogin) behaviour.login = {.user = "root", .password = "secret"};
  behaviour.echoes = !line.isTelnet;
  behaviour.respond = answerTo;
  return behaviour;
}

ZPKErrorPtr errorOf(const std::string& domain, int code, const char* text) {
  return ZPKError::init(domain, code, {{std::string(ZPKErrorDescriptionKey), text}});
}

// What an operation throws as an error; std::bad_alloc goes on.
bool attempt(const std::function<bool()>& operation, ZPKErrorPtr* error) {
  try {
    return operation();
  } catch (const zephal::Error& thrown) {
    const CallsWatched unwatched(false);
    *error = errorOf(thrown.domain(), thrown.code(), thrown.what());
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& thrown) {
    const CallsWatched unwatched(false);
    *error = errorOf("not an error of the console", 0, thrown.what());
  }
  return false;
}

std::string replaced(std::string text, std::string_view old, std::string_view by) {
  const size_t place = text.find(old);
  return place == std::string::npos ? text : text.replace(place, old.size(), by);
}

}  // namespace

ConsoleStation::ConsoleStation(Trial& trial, Line line, bool hasLogin)
    : _trial(trial),
      _line(line),
      _hasLogin(hasLogin),
      _device(line.kind, behaviourOf(line, hasLogin)) {
  trial.kind = Trial::Kind::kConsole;
  trial.recover = [this] { openAgain(); };
}

ConsoleStation::~ConsoleStation() { _trial.recover = nullptr; }

void ConsoleStation::openAgain() {
  if (!_console.has_value()) return;
  _console->close();
  prepareLine();
  ZPKErrorPtr ignored;
  attempt([&] { return _console->reopen(kShortLimit), true; }, &ignored);
}

bool ConsoleStation::step(const char* name, const Operation& operation) {
  return _trial.step(name, [&](ZPKErrorPtr* error) { return attempt(operation, error); });
}

bool ConsoleStation::failingStep(const char* name, int code, const Operation& operation) {
  return _trial.failingStep(name, code, "",
                            [&](ZPKErrorPtr* error) { return attempt(operation, error); });
}

void ConsoleStation::open(std::optional<Console>* console) {
  std::string url = _device.url();
  if (_line.isTelnet) url = replaced(url, "tcp:", "telnet:") + "?baud=115200";
  if (_line.hasName) url = replaced(url, "127.0.0.1", kHostName);
  const auto limit = _trial.recovers() ? kShortLimit : kLimit;
  zephal::ConsoleOptions options{.prompt = "=> ", .timeout = limit};
  if (_line.hasLogs) {
    options.log = _folder.pathOf("log");
    options.rawLog = _folder.pathOf("raw");
  }
  const CallsWatched watched(_trial.isWatching());
  console->emplace(url, std::move(options));
}

// It would otherwise pass for the answer to the first command.
void ConsoleStation::awaitGreeting() {
  _trial.expect(_device.waitUntilAllIsSent(), "the device says nothing");
}

// A terminal goes away when it hangs up, and stays exclusive while the device holds it open.
void ConsoleStation::prepareLine() {
  const CallsWatched unwatched(false);
  if (!_device.isOn()) _device.powerOn();
  _device.liftExclusiveHold();
}

bool ConsoleStation::open() {
  prepareLine();
  return step("open", [&] {
    const CallsWatched unwatched(false);
    open(&_console);
    return true;
  });
}

bool ConsoleStation::greeting() {
  return step("be greeted", [&] {
    _console->expect("=> ");
    return true;
  });
}

bool ConsoleStation::logIn() {
  awaitGreeting();
  return step("log in", [&] {
    _console->login("root", "secret");
    return true;
  });
}

bool ConsoleStation::ask() {
  return step("ask", [&] {
    return _console->ask("version") == "1.0\n" &&
           _console->ask("version", regex(R"((\d)\.)")).number() == 1;
  });
}

bool ConsoleStation::run() {
  return step("run", [&] {
    const zephal::RunResult result = _console->run("version");
    return result.output == "1.0\n" && result.status == 3;
  });
}

bool ConsoleStation::expect() {
  return step("expect", [&] {
    _console->discard();
    _console->send("version");
    return _console->expect({"never", regex(R"(\d\.\d\n)"), "=> "}).index == 1;
  });
}

bool ConsoleStation::send() {
  return step("send", [&] {
    _console->sendSecret("secret");
    _console->interrupt();
    _console->write("\n");
    _console->discard();
    return true;
  });
}

bool ConsoleStation::record() {
  return step("record", [&] {
    _console->send("version");
    _console->record(std::chrono::milliseconds(1));
    return true;
  });
}

bool ConsoleStation::reopen() {
  const bool boots = !_device.isOn();
  prepareLine();
  const bool isOpen = step("reopen", [&] {
    _console->reopen();
    return true;
  });
  return isOpen && (!boots || greeting());
}

bool ConsoleStation::reboot() {
  return step("reboot", [&] {
    _console->reboot("reboot");
    return true;
  });
}

bool ConsoleStation::close() {
  return step("close", [&] {
    _console->close();
    return !_console->isOpen();
  });
}

bool ConsoleStation::destroy() {
  return step("destroy", [&] {
    _console.reset();
    return true;
  });
}

bool ConsoleStation::askInVain() {
  return failingStep("wait", static_cast<int>(zephal::ErrorCode::kTimeout), [&] {
    _console->ask("silence", std::chrono::milliseconds(100));
    return true;
  });
}

bool ConsoleStation::loseDevice() {
  const bool result =
      failingStep("meet the end", static_cast<int>(zephal::ErrorCode::kDisconnected), [&] {
        _console->ask("bye");
        return true;
      });
  // The fault may have ended it first.
  if (_line.kind == SimulatedDevice::Kind::kTerminal) _device.hangUp();
  return result;
}

bool ConsoleStation::cancel() {
  std::atomic<bool> isOver{false};
  std::thread canceller([&] {
    const CallsWatched unwatched(false);
    // An operation that has not begun is not cancelled, so once more until it is.
    while (!isOver && !waitFor([&] { return isOver.load(); }, std::chrono::milliseconds(5))) {
      const CallsWatched watched(true);
      _console->cancel();
    }
  });
  const bool result =
      failingStep("be cancelled", static_cast<int>(zephal::ErrorCode::kCancelled), [&] {
        _console->expect("never");
        return true;
      });
  isOver = true;
  canceller.join();
  return result;
}

void ConsoleStation::must(const char* what, const Operation& operation) {
  ZPKErrorPtr error;
  _trial.expect(attempt(operation, &error), what, error);
}

bool ConsoleStation::talk(Console& console) const {
  if (_hasLogin) console.login("root", "secret", kLimit);
  // A terminal may still hold the answer to a command before the reopen, or its beginning.
  const int tries = _line.kind == SimulatedDevice::Kind::kTerminal ? 3 : 1;
  for (int i = 0; i < tries; ++i) {
    if (console.ask("probe", kLimit) == "here\n") return true;
  }
  return false;
}

void ConsoleStation::mustStillWork() {
  prepareLine();
  if (!_console.has_value()) must("cannot be opened", [&] { return open(&_console), true; });
  if (!_console.has_value()) return;
  Console& console = *_console;
  ZPKErrorPtr ignored;
  if (console.isOpen()) {
    attempt([&] { return console.ask("probe", std::chrono::seconds(1)), true; }, &ignored);
  }
  prepareLine();
  console.cancel();
  must("cannot be closed", [&] { return console.close(), !console.isOpen(); });
  must("can be used after a close", [&] {
    ZPKErrorPtr error;
    return !attempt([&] { return console.ask("probe"), true; }, &error) && error->code() == 3;
  });
  for (int i = 0; i < 2; ++i) {
    prepareLine();
    must("cannot be opened again", [&] {
      console.reopen(kLimit);
      awaitGreeting();
      return console.isOpen();
    });
    must("cannot talk", [&] { return talk(console); });
  }
  if (!_line.hasLogs) return;
  console.close();
  for (const char* name : {"log", "raw"}) {
    const std::string text = contentsOfFile(_folder.pathOf(name));
    _trial.expect(text.find("here") != std::string::npos, std::string(name) + " is not written");
  }
}

}  // namespace support
