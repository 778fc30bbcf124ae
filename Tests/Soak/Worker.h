#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <string_view>

#include "Soak/Gate.h"
#include "Soak/LogContent.h"
#include "Soak/SharedState.h"
#include "Soak/StreamChecker.h"
#include "Soak/Tally.h"
#include "Soak/Token.h"

namespace soak {

/// Where a worker finds its device, and what all workers share.
struct WorkerPlace {
  int device = 0;
  std::string url;
  /// Where it may put its logs.
  std::string folder;
  uint64_t seed = 0;
  DeviceState* state = nullptr;
  Tally* tally = nullptr;
  const Gate* gate = nullptr;
};

/// Uses stacks at one device, on a thread of its own: one session after the other, each on one
/// connection. Between two sessions nothing is open.
class Worker {
 public:
  explicit Worker(WorkerPlace place);
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  virtual ~Worker() = default;

  /// Runs sessions until the gate is closed, and then leaves by it.
  void run(Gate* gate);
  int device() const { return _place.device; }

 protected:
  /// One session.
  virtual void session() = 0;
  /// Releases what is kept from session to session.
  virtual void release() {}

  /// Has the device start afresh. A terminal does not notice that the station has closed it.
  void renewDevice() const;
  bool isTerminal() const { return _place.url.starts_with("uart"); }
  /// The next command of this session.
  std::string nextCommand(char mode, uint32_t amount);
  /// Waits until the device has seen all commands and said all it has to say; false if it does not.
  bool waitUntilDeviceIsIdle() const;
  /// Chooses a mode, mostly a plain answer.
  char chooseMode();
  /// Whether the device ends the connection instead of an answer.
  static bool isCut(char mode) { return mode == 'C' || mode == 'R' || mode == 'A'; }
  /// A number that suits the mode.
  uint32_t chooseAmount(char mode);
  void think();
  uint32_t random(uint32_t from, uint32_t to);
  std::string pathOf(std::string_view name) const;
  /// Whether these commands, from a log, are all of this session.
  bool areAllCommands(const std::string& written) const;
  /// The same, as something that must be.
  void checkWritten(const std::string& written);
  /// Checks what the device said, from a log, which must be at least `due` tokens.
  void checkRead(const std::string& read, const StreamChecker& received);
  /// Reads a log, again until `isComplete` or the time is up: a stack that is dropped without a
  /// close writes the end of its logs in the background.
  template <class Condition>
  LogContent logContent(const std::string& path, Condition isComplete) const {
    LogContent content = LogContent::ofFile(path);
    waitUntil([&] {
      if (isComplete(content)) return true;
      content = LogContent::ofFile(path);
      return isComplete(content);
    });
    return content;
  }
  static bool waitUntil(const std::function<bool()>& condition);
  void beginSession();
  static void pause(std::chrono::milliseconds duration);

  const WorkerPlace _place;
  uint32_t _session = 0;
  uint32_t _commands = 0;  // of this session

 private:
  std::mt19937_64 _random;
};

}  // namespace soak
