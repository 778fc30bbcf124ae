#pragma once

#include <ZephalConsole/Console.h>

#include <functional>
#include <optional>
#include <string>

#include "Faults/Trial.h"
#include "Support/SimulatedDevice.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// A console and its simulated device, whose operations are the steps of scenarios.
class ConsoleStation {
 public:
  struct Line {
    SimulatedDevice::Kind kind;
    bool hasLogs = false;
    bool isTelnet = false;
    bool hasName = false;  // of a host, which must be looked up
  };

  ConsoleStation(Trial& trial, Line line, bool hasLogin = false);
  ConsoleStation(const ConsoleStation&) = delete;
  ConsoleStation& operator=(const ConsoleStation&) = delete;
  ~ConsoleStation();

  // Steps of a trial: false if the step failed.
  bool open();
  bool greeting();
  bool logIn();
  bool ask();
  bool run();
  bool expect();
  bool send();
  bool record();
  bool reopen();
  bool reboot();
  bool close();
  bool destroy();
  /// Asks a device that does not answer.
  bool askInVain();
  /// The device ends the connection, which an operation meets.
  bool loseDevice();
  /// Another thread ends an operation.
  bool cancel();

  /// The checks after a trial: whatever failed, another thread can close the console, open it again
  /// and talk.
  void mustStillWork();

 private:
  using Operation = std::function<bool()>;

  bool step(const char* name, const Operation& operation);
  bool failingStep(const char* name, int code, const Operation& operation);
  void open(std::optional<zephal::Console>* console);
  void awaitGreeting();
  bool talk(zephal::Console& console) const;
  void prepareLine();
  void openAgain();
  void must(const char* what, const Operation& operation);

  Trial& _trial;
  const Line _line;
  const bool _hasLogin;
  const TemporaryFolder _folder;
  SimulatedDevice _device;
  std::optional<zephal::Console> _console;
};

}  // namespace support
