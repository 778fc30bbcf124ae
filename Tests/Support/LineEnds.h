// The far ends of lines, as the system creates them. The caller closes their descriptors.
#pragma once

#include <string>

namespace support {

/// A pseudo-terminal: the end that the test holds, and the device that the code under test opens by
/// its path. The device is held open here too, since the line hangs up when its last user closes
/// it.
struct Terminal {
  int farEnd = -1;
  int nearEnd = -1;
  std::string path;

  std::string url() const { return "uart://" + path; }
};
Terminal openTerminal();

struct Listener {
  int descriptor = -1;
  int port = 0;      // for TCP
  std::string path;  // for a unix socket

  std::string url() const;
};
/// On the loopback address, at a free port.
Listener listenOverTCP(int backlog = 5);
Listener listenAt(const std::string& path, int backlog = 5);

/// Accepts the next connection, and waits for it if necessary.
int acceptFrom(int listener);

}  // namespace support
