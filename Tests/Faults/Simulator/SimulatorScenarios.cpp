#include <ZephalSimulator/SimulatedDevice.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "Faults/Scenarios.h"
#include "Support/EventWait.h"

namespace support {

namespace {

using zephal::DeviceKind;
using zephal::SimulatedDevice;

// Somebody who talks to the device, with calls that do not fail.
class Caller {
 public:
  explicit Caller(const SimulatedDevice& device) : _descriptor(connect(device)) {}
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;
  ~Caller() {
    if (_descriptor != -1) ::close(_descriptor);
  }

  /// Whether the device answers within the limit. It may have gone.
  bool isAnswered(std::chrono::milliseconds limit) const {
    if (_descriptor == -1 || ::write(_descriptor, "version\n", 8) != 8) return false;
    std::string text;
    while (text.find("1.0\n=> ") == std::string::npos) {
      char buffer[256];
      if (!waitUntilReadable(_descriptor, limit)) return false;
      const ssize_t count = ::read(_descriptor, buffer, sizeof buffer);
      if (count <= 0) return false;
      text.append(buffer, static_cast<size_t>(count));
    }
    return true;
  }

 private:
  static int connect(const SimulatedDevice& device) {
    if (device.port() != 0) {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port = htons(static_cast<uint16_t>(device.port()));
      return connect(AF_INET, &address, sizeof address);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    device.path().copy(address.sun_path, sizeof address.sun_path - 1);
    return connect(AF_UNIX, &address, sizeof address);
  }
  static int connect(int family, const void* address, socklen_t length) {
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(descriptor, static_cast<const sockaddr*>(address), length) == 0) {
      return descriptor;
    }
    ::close(descriptor);
    return -1;
  }

  const int _descriptor;
};

// What an operation throws as an error; std::bad_alloc goes on.
bool attempt(const std::function<void()>& operation, ZPKErrorPtr* error) {
  std::string domain = "not an error of the simulator";
  try {
    operation();
    return true;
  } catch (const std::system_error& thrown) {
    const CallsWatched unwatched(false);
    *error = ZPKError::init("POSIX", thrown.code().value(),
                            {{std::string(ZPKErrorDescriptionKey), thrown.what()}});
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& thrown) {
    const CallsWatched unwatched(false);
    *error = ZPKError::init(domain, 0, {{std::string(ZPKErrorDescriptionKey), thrown.what()}});
  }
  return false;
}

class Simulation {
 public:
  Simulation(Trial& trial, DeviceKind kind) : _trial(trial), _kind(kind) {}

  bool start() {
    return step("start", [&] { _device.emplace(_kind, behaviour()); });
  }
  // Its thread may fail, and then the device goes off.
  bool talk() const {
    const Caller caller(*_device);
    const bool isAnswered = caller.isAnswered(std::chrono::milliseconds(300));
    return isAnswered && _device->isOn();
  }
  bool goAway() {
    return step("power off", [&] { _device->powerOff(); });
  }
  bool comeBack() {
    return step("power on", [&] { _device->powerOn(); });
  }
  bool end() {
    return step("end", [&] { _device.reset(); });
  }

  void mustStillWork() {
    ZPKErrorPtr error;
    const auto restart = [&] {
      if (!_device.has_value()) _device.emplace(_kind, behaviour());
      _device->powerOff();
      _device->powerOn();
    };
    _trial.expect(attempt(restart, &error), "cannot be started again", error);
    if (!_device.has_value()) return;
    const Caller caller(*_device);
    _trial.expect(caller.isAnswered(kPatience), "does not answer");
    _device.reset();
  }

 private:
  static zephal::DeviceBehaviour behaviour() {
    return {.bootText = "booted\n", .echoes = true, .responses = {{"version", "1.0\n"}}};
  }
  bool step(const char* name, const std::function<void()>& operation) {
    return _trial.step(name, [&](ZPKErrorPtr* error) { return attempt(operation, error); });
  }

  Trial& _trial;
  const DeviceKind _kind;
  std::optional<SimulatedDevice> _device;
};

void simulate(Trial& trial, DeviceKind kind) {
  trial.kind = Trial::Kind::kSimulator;
  Simulation simulation(trial, kind);
  static_cast<void>(simulation.start() && simulation.talk() && simulation.goAway() &&
                    simulation.comeBack() && simulation.talk() && simulation.end());
  trial.afterwards([&] { simulation.mustStillWork(); });
}

}  // namespace

std::vector<Scenario> allFaultScenarios() {
  // Its threads are the code under test here.
  SimulatedDevice::setThreadStart({});
  std::signal(SIGPIPE, SIG_IGN);  // the device may have hung up
  const std::pair<const char*, DeviceKind> kinds[] = {{"SimulatorOnUnix", DeviceKind::kUnix},
                                                      {"SimulatorOnTCP", DeviceKind::kTCP}};
  std::vector<Scenario> scenarios;
  for (const auto& [name, kind] : kinds) {
    const DeviceKind used = kind;
    scenarios.push_back({name, [used](Trial& trial) { simulate(trial, used); }});
  }
  return scenarios;
}

}  // namespace support
