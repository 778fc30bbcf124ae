#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Support/TemporaryFolder.h"

namespace support {

/// How long a test waits for something that must happen. Only a failing test waits that long, so it
/// is long enough for a crowded machine.
inline constexpr std::chrono::seconds kPatience{60};

/// Waits until `condition` holds; false if it still does not when the time is up.
bool waitFor(const std::function<bool()>& condition);

/// A program of the system that a test talks to. It runs in a session and process group of its own,
/// without input and with its output in a file, and is killed at the end with its whole group, or
/// if the test is. Programs that it starts in other sessions have to end by themselves, for
/// instance because their terminal goes away. If the test fails, the output is shown.
class RealProgram {
 public:
  struct Setup {
    /// The program, which is looked for in PATH and where only root has it, and its arguments.
    std::vector<std::string> command;
    /// "NAME=value", in addition to the test's own environment.
    std::vector<std::string> environment = {};
    /// Runs as "nobody" if we are root, otherwise as the current user.
    bool asOrdinaryUser = false;
    /// Lets setgroups(2) succeed without doing anything: nobody may call it in a user namespace
    /// that an ordinary user has made.
    bool ignoresGroups = false;
  };

  explicit RealProgram(Setup setup);
  RealProgram(const RealProgram&) = delete;
  RealProgram& operator=(const RealProgram&) = delete;
  ~RealProgram();

  /// Waits until `condition` holds. Throws if the program ends first, or the time is up; both are
  /// described with `what` and the output.
  void waitUntil(const std::function<bool()>& condition, const std::string& what);
  /// Waits until the program accepts connections: "tcp://127.1.2.3:4001" or "unix:///tmp/...".
  void waitUntilItListens(const std::string& url);
  /// Waits until the program ends, and returns its exit status, or -1 if a signal ended it.
  int waitForEnd();
  /// Kills the program and its group.
  void kill();
  /// What it has printed so far, errors too.
  std::string output() const;

 private:
  bool hasEnded();
  [[noreturn]] void fail(const std::string& why) const;

  const Setup _setup;
  TemporaryFolder _folder;
  pid_t _process = -1;
  bool _isReaped = false;
  int _status = 0;
};

}  // namespace support
