// The far ends of lines, as the system makes them. Whoever asks for one closes its descriptors.
#pragma once

#include <string>

namespace support {

/// A pseudo-terminal: what the test holds, and the device that the code under test opens by its
/// path. The device is held open here too, since the line hangs up with its last user.
struct Terminal {
  int farEnd = -1;
  int nearEnd = -1;
  std::string path;

  std::string url() const { return "uart://" + path; }
};
Terminal openTerminal();

struct Listener {
  int descriptor = -1;
  int port = 0;      // of TCP
  std::string path;  // of a unix socket

  std::string url() const;
};
/// On the loopback address, at a free port.
Listener listenOverTCP(int backlog = 5);
Listener listenAt(const std::string& path, int backlog = 5);

/// Takes the next connection, and waits for it if need be.
int acceptFrom(int listener);

}  // namespace support
