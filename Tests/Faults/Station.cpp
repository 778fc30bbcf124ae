#include "Faults/Station.h"

#include <cstring>

#include "Faults/FurtherCalls.h"
#include "Support/EventWait.h"
#include "Support/Files.h"

namespace support {

namespace {

// By a clock that runs thirty times as fast; only a failing trial waits so long.
constexpr int kLimit = 900;
constexpr int kShortLimit = 60;

}  // namespace

Station::Station(Trial& itsTrial, Line line)
    : trial(itsTrial),
      device(line.kind, {.responses = {{"version", "1.0\n"},
                                       {"probe", "here\n"},
                                       {"silence", zephal::DeviceAnswer::silence()},
                                       {"bye", zephal::DeviceAnswer::hangUp()}}}),
      _line(line) {
  trial.hasReader = line.hasReader;
  trial.recover = [this] { openAgain(); };
}

Station::~Station() { trial.recover = nullptr; }

void Station::openAgain() {
  if (stack == nullptr || stack->commChannel() == nullptr) return;
  stack->close();
  prepareLine();
  stack->openWithTimeout(std::nullopt);
}

int Station::limit() const { return trial.recovers() ? kShortLimit : kLimit; }

bool Station::create() {
  return trial.step("create", [&](ZPKErrorPtr* error) { return make(error); });
}

bool Station::make(ZPKErrorPtr* error) {
  if (stack == nullptr) {
    auto made = ZPKCommStack::init();
    made->setDelimiter("=> ");
    if (_line.hasReader && !made->setActiveChannelOnOff(true, error)) return false;
    if (_line.hasLogs &&
        !made->setLogFilePath(_folder.pathOf("post"), _folder.pathOf("pre"), error)) {
      return false;
    }
    stack = made;
  }
  std::string url = device.url();
  if (_line.hasName) url.replace(url.find("127.0.0.1"), std::strlen("127.0.0.1"), kHostName);
  return stack->createStackWithURL(url, error);
}

// A terminal goes away when it hangs up, and stays exclusive while the device holds it open.
void Station::prepareLine() {
  const CallsWatched unwatched(false);
  if (!device.isOn()) device.powerOn();
  device.liftExclusiveHold();
}

bool Station::open() {
  prepareLine();
  return trial.step(
      "open", [&](ZPKErrorPtr* error) { return stack->openWithTimeout(std::nullopt, error); });
}

bool Station::ask() {
  return trial.step("ask", [&](ZPKErrorPtr* error) {
    return stack->sendCommandString("version", limit(), error) == "1.0\n=> ";
  });
}

bool Station::askInVain() {
  return trial.failingStep("wait", 305, "Timed out waiting for response", [&](ZPKErrorPtr* error) {
    return stack->sendCommandString("silence", 0.1, error).has_value();
  });
}

bool Station::loseDevice() {
  trial.hidesFailures = true;
  return trial.failingStep("meet the end", 5, "Read failed with error ", [&](ZPKErrorPtr* error) {
    return stack->sendCommandString("bye", limit(), error).has_value();
  });
}

bool Station::reset() {
  return trial.step("reset",
                    [&](ZPKErrorPtr* error) { return stack->commChannel()->reset(error); });
}

bool Station::close() {
  return trial.step("close", [&](ZPKErrorPtr* error) { return stack->close(error); });
}

void Station::mustStillWork() {
  if (stack != nullptr && stack->commChannel() != nullptr) {
    if (stack->isOpen() != 0 && !trial.hidesFailures) mustTalk();
    mustClose();
    mustOpen();
    mustClose();
  }
  ZPKErrorPtr error;
  trial.expect(make(&error), "cannot be created again", error);
  mustOpen();
  // A device that was told to hang up may do so only now.
  if (trial.hidesFailures && !talk(&error)) {
    if (stack->isOpen() != 0) mustClose();
    trial.expect(make(&error), "cannot be created again", error);
    mustOpen();
  }
  mustTalk();
  mustClose();
  trial.expect(stack->isOpen() == 0, "still open");
}

void Station::mustClose() {
  ZPKErrorPtr error;
  const bool wasOpen = stack->isOpen() != 0;
  const bool isClosed = stack->close(&error);
  // A background reader can fail between the two.
  const bool hasFailed = error != nullptr && error->code() == 2;
  trial.expect(isClosed || (hasFailed && (!wasOpen || _line.hasReader)), "cannot be closed", error);
  trial.expect(stack->isOpen() == 0, "open after a close");
}

void Station::mustOpen() {
  prepareLine();
  ZPKErrorPtr error;
  trial.expect(stack->openWithTimeout(std::nullopt, &error), "cannot be opened again", error);
}

// A background reader may have failed just now.
void Station::mustTalk() {
  ZPKErrorPtr error;
  const bool hasTalked = talk(&error);
  if (!hasTalked && _line.hasReader && stack->isOpen() == 0) return;
  trial.expect(hasTalked, "cannot talk", error);
  if (hasTalked && _line.hasLogs) mustLog();
}

// A terminal may still hold an answer, and the beginning of a command that a failed write has cut
// off.
bool Station::talk(ZPKErrorPtr* error) {
  stack->writeString("", error);
  stack->writeString("probe", error);
  const auto text = stack->readStringWithTimeout(kLimit, "here\n=> ", error);
  return text.has_value() && text->ends_with("here\n=> ");
}

void Station::mustLog() {
  for (const char* name : {"pre", "post"}) {
    const std::string path = _folder.pathOf(name);
    const auto isLogged = [&] { return contentsOfFile(path).find("here") != std::string::npos; };
    trial.expect(waitFor(isLogged, std::chrono::seconds(5)), path + " is not written");
  }
}

}  // namespace support
