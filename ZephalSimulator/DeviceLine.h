#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "DevicePlace.h"

namespace zephal {

/// The line of a simulated device: a pseudo-terminal, or a listener and the connection that it
/// accepted. Its address stays the same while the line comes and goes: a terminal has a link, which
/// leads to another terminal each time, and a TCP port is held by a socket that never listens.
///
/// Nothing here waits. It has no lock; a descriptor may be polled while the line is not changed.
class DeviceLine {
 public:
  /// Chooses an address if necessary; nothing is reachable yet.
  explicit DeviceLine(DevicePlace place);
  DeviceLine(const DeviceLine&) = delete;
  DeviceLine& operator=(const DeviceLine&) = delete;
  ~DeviceLine();

  const DevicePlace& place() const { return _place; }
  const std::string& url() const { return _url; }

  /// Makes the address reachable.
  void appear();
  /// Ends the connection and makes the address unreachable.
  void disappear();

  /// The descriptor of a listener without a connection, or -1.
  int acceptor() const { return _line < 0 ? _listener : -1; }
  /// The descriptor of the connection or the terminal, or -1.
  int descriptor() const { return _line; }

  /// Accepts a connection, if one is there.
  bool accept();
  /// The bytes that have arrived, perhaps none; null if the peer has gone.
  std::optional<std::string> receive();
  /// How many of the bytes went out, perhaps none; null if the peer has gone.
  std::optional<size_t> send(std::string_view bytes);
  /// Whether the peer has bytes to read that a hang-up would take away: only a terminal's does.
  bool isUnread() const;
  /// Ends the connection cleanly, and returns what arrived in the last moment. A terminal
  /// disappears.
  std::string hangUp();
  /// Ends the connection with a reset, if it is a TCP connection.
  void reset();
  /// Refuses every later connection.
  void stopListening();
  void liftExclusiveHold();

 private:
  void chooseAddress();
  void releaseAddress();
  void holdPort();
  void makeTerminal();
  void listenOnTCP();
  void listenOnUnix();
  void finish(std::string* last) const;

  DevicePlace _place;
  std::string _url;
  std::string _folder;  // removed at the end; empty: none is needed
  bool _isThere = false;
  int _holder = -1;  // of the TCP port
  int _listener = -1;
  int _line = -1;   // the connection, or the terminal's far end
  int _slave = -1;  // keeps the terminal's near end alive while nobody has it open
};

}  // namespace zephal
