#include "Soak/RecorderWorker.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "Soak/ErrorName.h"

namespace soak {

namespace {

using std::chrono::milliseconds;

}  // namespace

void RecorderWorker::session() {
  beginSession();
  if (std::exchange(_mustRenew, false)) renewDevice();
  if (!open()) return release();
  record();
  _isSilent = random(0, 1) == 0;
  if (_isSilent) awaitSilence();
  ZPKErrorPtr error;
  _isCut = !_stack->isOpen().boolValue();
  if (!_stack->close(&error)) {
    // A recorder that a hang-up has closed in the meantime.
    const bool isOpen = _stack->isOpen().boolValue();
    _place.tally->countError(
        errorName(!isOpen ? "close recorder after cut" : "close recorder", error));
    _isCut = true;
  }
  _mustRenew = isTerminal() && !_isCut;
  if (_isCut || random(0, 1) == 0) release();
  checkLogs();
}

bool RecorderWorker::open() {
  const bool isOpen = waitUntil([&] {
    ZPKErrorPtr error;
    if (_stack == nullptr && !configure()) return false;
    errno = 0;
    if (_stack->open(&error)) return true;
    _place.tally->countError(openErrorName("open recorder", error, errno));
    release();
    // It may have been cut as soon as it was connected, and have recorded something before.
    for (const std::string_view log : {"log", "wire.log"}) ::unlink(pathOf(log).c_str());
    pause(milliseconds(random(5, 60)));
    return false;
  });
  if (!isOpen) _place.tally->addFailure("device " + std::to_string(_place.device) + " stays away");
  return isOpen;
}

bool RecorderWorker::configure() {
  ZPKErrorPtr error;
  _stack = ZPKCommLoggerStack::init();
  _stack->setDelimiter("\n", &error);
  if (_stack->setLogFilePath(pathOf("log"), pathOf("wire.log"), &error) &&
      _stack->createStackWithURL(_place.url, &error)) {
    return true;
  }
  _place.tally->addFailure(errorName("configure recorder", error));
  return false;
}

void RecorderWorker::record() {
  const auto end = std::chrono::steady_clock::now() + milliseconds(random(200, 4000));
  while (std::chrono::steady_clock::now() < end && !_place.gate->isClosed()) {
    if (!_stack->isOpen().boolValue()) return;
    pause(milliseconds(20));
  }
}

// Then nothing can be on its way when the recorder is closed, and both logs must have everything.
void RecorderWorker::awaitSilence() {
  DeviceState& device = *_place.state;
  device.silenceWanted = _session;
  waitUntil([&] {
    StreamChecker checker(_place.device, false, false);
    checker.feed(LogContent::ofFile(pathOf("log")).read);
    const bool isCut = !_stack->isOpen().boolValue();
    const bool isSilent = device.silenceReached == _session;
    return isCut || (isSilent && checker.next() == device.tokensSent);
  });
}

StreamChecker RecorderWorker::checkedLog(std::string_view name) {
  const std::string path = pathOf(name);
  const LogContent content = LogContent::ofFile(path);
  ::unlink(path.c_str());
  StreamChecker checker(_place.device, false, false);
  checker.feed(content.read);
  checker.finish(true);
  Tally& tally = *_place.tally;
  ++tally.logs;
  tally.logLines += checker.next();
  tally.logLinesTorn += content.torn;
  tally.bytesReceived += checker.bytes();
  tally.addDamage("recordings", checker.damage(), checker.evidence());
  return checker;
}

void RecorderWorker::checkLogs() {
  // What a dropped recorder still has to write, it writes in the background; then how much there
  // has to be is not known.
  if (_stack == nullptr && _isCut) pause(milliseconds(100));
  const uint32_t sent = _place.state->tokensSent;
  const StreamChecker units = checkedLog("log");
  const StreamChecker wire = checkedLog("wire.log");
  _place.state->silenceWanted = 0;
  if (_isCut || !_isSilent) return;
  ++_place.tally->drained;
  if (wire.next() == sent && units.next() == sent) return;
  _place.tally->logLinesLost += sent - std::min({sent, wire.next(), units.next()});
  _place.tally->addFailure("recording of device " + std::to_string(_place.device) + " has " +
                           std::to_string(units.next()) + " and " + std::to_string(wire.next()) +
                           " of " + std::to_string(sent) + " lines");
}

}  // namespace soak
