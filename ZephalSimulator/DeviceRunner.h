#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "DeviceBehaviour.h"
#include "DeviceLine.h"
#include "DevicePlayer.h"
#include "DeviceStep.h"

namespace zephal {

/// The thread of a simulated device: moves bytes between its line and its player, sends what is
/// due, and switches the line off and on. For the operations see SimulatedDevice.
///
/// The mutex guards all fields that change. The player is only used on the thread, after the start,
/// and without the mutex, since it may call a user's function.
class DeviceRunner {
 public:
  using Milliseconds = std::chrono::milliseconds;

  DeviceRunner(DevicePlace place, DeviceBehaviour behaviour, std::unique_ptr<DevicePlayer> player,
               std::function<void()> threadStart);
  DeviceRunner(const DeviceRunner&) = delete;
  DeviceRunner& operator=(const DeviceRunner&) = delete;
  ~DeviceRunner();

  /// What never changes: the place and the URL.
  const DeviceLine& line() const { return _line; }

  void setBehaviour(DeviceBehaviour behaviour);
  std::string received() const;
  std::vector<std::string> commands() const;
  std::vector<std::string> unknownCommands() const;
  size_t connections() const;
  bool hasSentAll() const;
  bool isOn() const;
  void forgetReceived();

  bool waitForReceived(std::string_view bytes, Milliseconds limit) const;
  bool waitForCommands(size_t count, Milliseconds limit) const;
  bool waitForConnections(size_t count, Milliseconds limit) const;
  bool waitUntilAllIsSent(Milliseconds limit) const;
  bool waitUntilOn(Milliseconds limit) const;

  void send(std::string_view bytes);
  void hangUp();
  void resetConnection();
  void stopListening();
  void powerOff(std::optional<Milliseconds> away);
  void powerOn();
  void liftExclusiveHold();

 private:
  using Clock = std::chrono::steady_clock;

  void makePipe();
  void closePipe();
  void run();
  void fail();
  bool runOnce();
  bool wait();
  std::string serveLine();
  void react(DeviceReaction reaction, std::string_view received);
  void comeBack();
  bool mustLinger() const;
  int millisecondsUntilNext() const;
  bool wantsToSend() const;
  void sendNext();
  void finishStep();
  void endLine(const DeviceStep& step);
  void goOff(std::optional<Milliseconds> away);
  void endConnection(DeviceEnding ending);
  void addStep(DeviceStep step);
  void wake() const;
  void waitFor(const char* what, const std::function<bool()>& condition) const;
  bool waitOn(const std::function<bool()>& condition, Milliseconds limit) const;

  const std::function<void()> _threadStart;
  int _wakeRead = -1;
  int _wakeWrite = -1;
  const std::unique_ptr<DevicePlayer> _player;

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  DeviceLine _line;
  // What users set; replaced, never changed.
  std::shared_ptr<const DeviceBehaviour> _behaviour;
  std::deque<DeviceStep> _steps;
  Clock::time_point _stepStart;
  std::string _received;
  std::vector<std::string> _commands;
  std::vector<std::string> _unknownCommands;
  size_t _connections = 0;
  size_t _endings = 0;  // of connections, by either side
  bool _isOn = false;
  bool _mustGoOff = false;
  std::optional<Milliseconds> _away;          // with _mustGoOff
  std::optional<Clock::time_point> _returns;  // while off: when the device comes back
  std::exception_ptr _failure;                // why it is off
  bool _stops = false;

  std::thread _thread;
};

}  // namespace zephal
