#pragma once

#include <sys/types.h>

#include <string>

#include "Endpoint.h"

/// A device in a process of its own, which answers every line that it receives:
///
/// - ping: "pong\n> "
/// - note TEXT: nothing
/// - flood W N: N lines of W bytes each, including the line feed, in writes of 64 KiB, most of
///   which end within a line
/// - big N P: N bytes and "> ", in writes of at most P bytes
/// - stairs N P: the same, with every byte a ">" and a final " "
/// - words N P: the same, with lines of words
///
/// It ends when the object is destroyed.
class Device {
 public:
  /// `cpu` pins the device; -1 leaves it free. A device on a socket serves one connection, the
  /// first, by blocking reads, so that a round trip costs it one read and one write; with
  /// `servesMany` it serves all connections.
  Device(Transport transport, int cpu, bool servesMany = false);
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  ~Device();

  /// The URL of the device.
  std::string url() const { return _endpoint.url(); }
  /// Lets the device run only when nobody else wants its processor, so that it never answers before
  /// its client waits.
  void standBack() const;
  /// A plain file descriptor that talks to it, opened raw: for the loops that the library is
  /// compared with.
  int connect() const { return _endpoint.connect(); }

 private:
  void openTerminal();
  void listenOnPath();
  void listenOnPort();

  Endpoint _endpoint;
  int _listener = -1;
  int _keptSlave = -1;
  pid_t _process = -1;
};

/// The CPU of the client in every benchmark that is measured on one.
constexpr int kClientCPU = 0;

/// Pins the calling thread to one CPU; -1 frees it.
void pinTo(int cpu);
/// Lets a process run only when nobody else wants its processor; 0 is the calling one.
void letStandBack(pid_t process);
