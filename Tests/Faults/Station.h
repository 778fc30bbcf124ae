#pragma once

#include <memory>
#include <string>

#include "Data Stack/ZPKCommStack.h"
#include "Faults/Trial.h"
#include "Support/SimulatedDevice.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// A stack and its simulated device, whose operations are the steps of scenarios.
class Station {
 public:
  struct Line {
    SimulatedDevice::Kind kind;
    bool hasReader = false;
    bool hasLogs = false;
    bool hasName = false;  // of a host, which must be looked up
  };

  Station(Trial& trial, Line line);
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;
  ~Station();

  // Steps of a trial: false if the step failed.
  bool create();
  bool open();
  bool ask();
  /// Asks a device that does not answer.
  bool askInVain();
  /// The device ends the connection, which a read meets.
  bool loseDevice();
  bool close();
  bool reset();

  /// The checks after a trial: whatever failed, the stack can be closed, opened, and talked to.
  void mustStillWork();

  Trial& trial;
  SimulatedDevice device;
  ZPKCommStackPtr stack;

 private:
  bool make(ZPKErrorPtr* error);
  void prepareLine();
  void openAgain();
  int limit() const;
  void mustClose();
  void mustOpen();
  void mustTalk();
  bool talk(ZPKErrorPtr* error);
  void mustLog();

  const Line _line;
  const TemporaryFolder _folder;
};

}  // namespace support
