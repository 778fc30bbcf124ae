#pragma once

#include <string>

/// What a device is attached to.
enum class Transport { Tcp, Unix, Pty };

const char* nameOf(Transport transport);

/// Where a device is: a path, or a port of the loopback address.
struct Endpoint {
  Transport transport = Transport::Tcp;
  std::string path;  // of the terminal or the unix socket
  int port = 0;

  /// Reads the URL of a Device.
  static Endpoint fromURL(const std::string& url);
  std::string url() const;
  /// A plain file descriptor that talks to it, opened raw. Ends the program if that fails.
  int connect() const;
};

/// Opens a terminal as plain loops use it: raw, and not as the controlling one.
int openRawTerminal(const std::string& path);
