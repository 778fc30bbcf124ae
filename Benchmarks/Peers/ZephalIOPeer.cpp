#include "Peers/ZephalIOPeer.h"

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "Measure.h"

namespace {

constexpr const char* kLogs[] = {"/talk.log", "/raw.log"};

}  // namespace

ZephalIOPeer::ZephalIOPeer(const Conversation& conversation, Kind kind) {
  _stack->setDelimiter(conversation.delimiter);
  if (kind == Kind::Reader) _stack->setActiveChannelOnOff(true);
  if (kind == Kind::Logs) setLogs();
  if (!_stack->createStackWithURL(conversation.device.url())) leaveContest("failed", "no stack");
  if (!_stack->openWithTimeout(std::nullopt)) leaveContest("failed", "cannot open");
}

ZephalIOPeer::~ZephalIOPeer() {
  _stack->close();
  if (_folder.empty()) return;
  for (const char* log : kLogs) ::unlink((_folder + log).c_str());
  ::rmdir(_folder.c_str());
}

void ZephalIOPeer::write(std::string_view command) {
  if (!_stack->writeString(command)) leaveContest("failed", "write");
}

size_t ZephalIOPeer::readResponse() {
  const ZPKDataPtr response = _stack->readDataWithTimeout(kPeerTimeout, nullptr);
  if (response == nullptr) leaveContest("failed", "no response");
  useBytes(response->bytes());
  return response->length();
}

void ZephalIOPeer::finish() {
  if (_folder.empty()) return;
  // There is nothing to wait for: a process that takes no time any more has written everything.
  for (double used = 1; used > 50e-6;) {
    const double before = processorSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    used = processorSeconds() - before;
  }
  for (const char* log : kLogs) {
    if (::truncate((_folder + log).c_str(), 0) != 0) leaveContest("failed", "no log");
  }
}

void ZephalIOPeer::setLogs() {
  char folder[] = "/tmp/zephalio-peers-XXXXXX";
  if (::mkdtemp(folder) == nullptr) leaveContest("failed", "no folder for the logs");
  _folder = folder;
  _stack->setLogFilePath(_folder + kLogs[0], _folder + kLogs[1]);
}
