#pragma once

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

#include "Support/TemporaryFolder.h"

namespace support {

/// A real program on a pseudo-terminal, a shell for instance, as the device at the other end of a
/// unix socket. It starts with the first connection and is hung up at the end. One connection.
class ShellDevice {
 public:
  struct Setup {
    std::vector<std::string> command;
    unsigned short columns = 80;
    std::string terminal = "xterm";
    std::vector<std::string> environment = {};
  };

  explicit ShellDevice(Setup setup);
  ShellDevice(const ShellDevice&) = delete;
  ShellDevice& operator=(const ShellDevice&) = delete;
  ~ShellDevice();

  std::string url() const { return "unix://" + _folder.pathOf("socket"); }

 private:
  void startProgram();
  void serve();
  void copyBothWays(int connection);

  const Setup _setup;
  TemporaryFolder _folder;
  int _listener = -1;
  int _terminal = -1;
  int _stop[2] = {-1, -1};
  pid_t _process = -1;
  std::thread _thread;
};

}  // namespace support
