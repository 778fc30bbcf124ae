#include "Faults/Scenarios.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <utility>

#include "Data Channel/ZPKDataChannelManager.h"
#include "Data Server/ZPKTCPServer.h"
#include "Data Stack/ZPKCommLoggerStack.h"
#include "Faults/Station.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/Managers.h"
#include "Support/StandardOutputCapture.h"
#include "Support/TCPServerFixture.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPIUnixSocketFunctions.h"

namespace support {

namespace {

using Line = Station::Line;
using Kind = SimulatedDevice::Kind;

// Opens, talks, closes, and all that again.
void converse(Trial& trial, const Line& line) {
  Station station(trial, line);
  static_cast<void>(station.create() && station.open() && station.ask() && station.close() &&
                    station.reset() && station.open() && station.ask() && station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

void timeOut(Trial& trial, const Line& line) {
  Station station(trial, line);
  static_cast<void>(station.create() && station.open() && station.askInVain() && station.ask() &&
                    station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

void hangUp(Trial& trial, const Line& line) {
  Station station(trial, line);
  static_cast<void>(station.create() && station.open() && station.ask() && station.loseDevice() &&
                    station.open() && station.ask() && station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

// A recorder, which has a background reader and both logs.
class Recorder {
 public:
  Recorder(Trial& trial, Kind kind) : _trial(trial), _kind(kind), _device(kind) {
    trial.hasReader = true;
  }

  bool create() {
    return _trial.step("create", [&](ZPKErrorPtr* error) {
      auto made = ZPKCommLoggerStack::init();
      if (!made->setLogFilePath(_folder.pathOf("cut"), raw(), error)) return false;
      _stack = made;
      return _stack->createStackWithURL(_device.url(), error);
    });
  }
  bool open() {
    _device.liftExclusiveHold();
    const bool isOpen =
        _trial.step("open", [&](ZPKErrorPtr* error) { return _stack->open(error); });
    if (isOpen) awaitConnection();
    return isOpen;
  }
  // Returns when the device has sent it, or when nobody listens; what is recorded depends on the
  // fault.
  bool record(const std::string& text) {
    _device.send(text);
    return waitFor([&] { return _device.hasSentAll() || _stack->isOpen() == 0; });
  }
  bool close() {
    return _trial.step("close", [&](ZPKErrorPtr* error) { return _stack->close(error); });
  }

  void mustStillWork() {
    if (_stack == nullptr) return;
    ZPKErrorPtr error;
    if (_stack->isOpen() != 0) _trial.expect(_stack->close(&error), "cannot be closed", error);
    _device.liftExclusiveHold();
    _trial.expect(_stack->createStackWithURL(_device.url(), &error), "cannot be created", error);
    _trial.expect(_stack->open(&error), "cannot be opened again", error);
    awaitConnection();
    // What is sent to an earlier connection, which ended while it was made, goes nowhere.
    _trial.expect(waitFor([&] { return record("still here\n> ") && isRecorded("still here"); }),
                  "nothing is recorded");
    _trial.expect(_stack->close(&error), "cannot be closed", error);
  }

 private:
  // The device could otherwise still send to an earlier connection.
  void awaitConnection() {
    if (_kind == Kind::kTerminal) return;
    _trial.expect(_device.waitForConnections(++_connections), "no connection");
  }
  std::string raw() const { return _folder.pathOf("raw"); }
  bool isRecorded(const std::string& text) const {
    return contentsOfFile(raw()).find(text) != std::string::npos;
  }

  Trial& _trial;
  const TemporaryFolder _folder;
  const Kind _kind;
  SimulatedDevice _device;
  size_t _connections = 0;
  ZPKCommLoggerStackPtr _stack;
};

void record(Trial& trial, Kind kind) {
  Recorder recorder(trial, kind);
  static_cast<void>(recorder.create() && recorder.open() && recorder.record("one\n> ") &&
                    recorder.close());
  trial.afterwards([&] { recorder.mustStillWork(); });
}

// Answers each connection with a greeting. A callback must not throw.
void greet(const ZPKDataChannelPtr& channel) {
  const CallsWatched unwatched(false);
  channel->write(ZPKData::dataWithString("hello"));
  channel->close();
}

ZPKTCPServerPtr serveOnce(Trial& trial) {
  ZPKTCPServerPtr server;
  trial.step("start", [&](ZPKErrorPtr* error) {
    server = startTCPServerOnPort(ZPKNumber(0), greet, error);
    return *error == nullptr;
  });
  return server;
}

// What a client receives; "" if it is refused.
std::string greetingOf(const ZPKTCPServer& server) {
  std::string greeting(5, '\0');
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(portOf(server.handle())));
  ssize_t count = -1;
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    count = ::recv(socket, greeting.data(), greeting.size(), MSG_WAITALL);
  }
  ::close(socket);
  greeting.resize(static_cast<size_t>(std::max<ssize_t>(0, count)));
  return greeting;
}

void serve(Trial& trial) {
  trial.kind = Trial::Kind::kServer;
  trial.hidesFailures = true;
  const StandardOutputCapture output;
  const ZPKTCPServerPtr server = serveOnce(trial);
  const bool isServing = server != nullptr && trial.failures.empty();
  // A visitor may be refused or dropped now, but nobody else.
  if (isServing && isThread(server->listenThread())) greetingOf(*server);
  if (isServing) {
    trial.step("stop", [&](ZPKErrorPtr* error) { return server->stop(error); });
  }
  trial.afterwards([&] {
    ZPKErrorPtr error;
    if (isServing) trial.expect(server->handle() == -1, "not stopped");
    const auto next = startTCPServerOnPort(ZPKNumber(0), greet, &error);
    trial.expect(greetingOf(*next) == "hello", "no greeting");
    trial.expect(next->stop(&error), "cannot be stopped", error);
  });
}

// Listens where a socket file was left behind.
void listenOnUnix(Trial& trial) {
  trial.kind = Trial::Kind::kServer;
  trial.hidesFailures = true;
  const StandardOutputCapture output;
  const TemporaryFolder folder;
  const std::string path = folder.pathOf("socket");
  ::close(passive_unix(path));
  trial.step("listen", [&](ZPKErrorPtr*) {
    const int listener = passive_unix(path);
    if (listener == -1) return false;
    const CallsWatched unwatched(false);
    return ::close(listener) == 0;
  });
  trial.afterwards([&] {
    const int listener = passive_unix(path);
    trial.expect(listener != -1, "cannot listen");
    ::close(listener);
  });
}

class CountingDelegate final : public ZPKDataChannelManagerDelegate {
 public:
  void didReceiveMessage(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                         const ZPKObjectPtr&) override {
    ++messages;
  }
  void didDisconnect(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                     const ZPKErrorPtr&) override {
    ++disconnects;
  }

  std::atomic<int> messages{0};
  std::atomic<int> disconnects{0};
};

void deliverObjects(Trial& trial) {
  trial.hidesFailures = true;
  TransportPeer peer(TransportPeer::Kind::kAdopted);
  const ZPKDataChannelPtr channel = peer.makeChannel();
  const auto delegate = std::make_shared<CountingDelegate>();
  ZPKDataChannelManagerPtr manager = makeManager(channel, delegate, kDetached);
  peer.send(archive(ZPKValue(std::string("a value that needs memory of its own")))->view());
  const bool isListening =
      trial.step("listen", [&](ZPKErrorPtr* error) { return manager->listen(error); });
  if (isListening) {
    trial.expect(waitFor([&] { return delegate->messages == 1 || delegate->disconnects == 1; }),
                 "no object and no end");
    peer.hangUp();
    trial.expect(waitFor([&] { return delegate->disconnects == 1; }), "no end");
  }
  trial.afterwards([&] {
    releaseManager(&manager);
    if (channel->isOpened()) trial.expect(channel->close(), "cannot be closed");
  });
}

std::vector<std::pair<std::string, Line>> allLines() {
  std::vector<std::pair<std::string, Line>> lines;
  const std::map<Kind, std::string> kinds = {
      {Kind::kUnix, "Unix"}, {Kind::kTCP, "TCP"}, {Kind::kTerminal, "Terminal"}};
  for (const auto& [kind, name] : kinds) {
    lines.push_back({name, {kind}});
    lines.push_back({name + "WithLogs", {kind, false, true}});
    lines.push_back({name + "WithReader", {kind, true, false}});
    lines.push_back({name + "WithReaderAndLogs", {kind, true, true}});
  }
  return lines;
}

}  // namespace

std::vector<Scenario> faultScenarios() {
  std::vector<Scenario> scenarios;
  for (const auto& [name, line] : allLines()) {
    const Line used = line;
    scenarios.push_back({"ConverseOver" + name, [used](Trial& trial) { converse(trial, used); }});
    scenarios.push_back({"TimeOutOver" + name, [used](Trial& trial) { timeOut(trial, used); }});
    scenarios.push_back({"HangUpOver" + name, [used](Trial& trial) { hangUp(trial, used); }});
    if (line.hasReader || line.hasLogs) continue;
    scenarios.push_back({"RecordOver" + name, [used](Trial& trial) { record(trial, used.kind); }});
  }
  const Line named{.kind = Kind::kTCP, .hasName = true};
  scenarios.push_back({"TimeOutOverTCPByName", [named](Trial& trial) { timeOut(trial, named); }});
  scenarios.push_back({"Serve", serve});
  scenarios.push_back({"ListenOnUnix", listenOnUnix});
  scenarios.push_back({"DeliverObjects", deliverObjects});
  return scenarios;
}

}  // namespace support
