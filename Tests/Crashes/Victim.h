#pragma once

#include <sys/types.h>

#include <functional>

#include "Crashes/Progress.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// A forked process that logs until it is killed. The test program must have no threads when it
/// starts one; the victim may have as many as it likes.
class Victim {
 public:
  explicit Victim(const std::function<void(Progress&)>& run);
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;
  /// Kills it if it is still there.
  ~Victim();

  Progress& progress() { return *_progress; }
  pid_t process() const { return _process; }
  /// Waits until it has logged this many pieces; false if it ends before that.
  bool waitUntilLogged(uint32_t count);
  /// Sends SIGKILL, and waits until the process has gone.
  void kill();
  /// Lets it close its logs and end, and returns its exit status.
  int end();

 private:
  int waitForEnd();

  const TemporaryFolder _folder;  // for what the process cannot remove
  Progress* const _progress;
  pid_t _process = -1;
};

}  // namespace support
