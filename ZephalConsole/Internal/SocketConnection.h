#pragma once

#include <sys/socket.h>

#include "ZephalConsole/Internal/Descriptor.h"
#include "ZephalConsole/Internal/Stop.h"
#include "ZephalConsole/Internal/Wakeup.h"

namespace zephal::internal {

/// Connects a socket that never blocks, within a time limit.
class SocketConnection {
 public:
  SocketConnection(const Stop& stop, const Wakeup& wakeup) : _stop(stop), _wakeup(wakeup) {}

  /// False on failure; error() then says why: an errno, ETIMEDOUT after the time limit, ECANCELED.
  bool connect(const sockaddr* address, socklen_t length);
  int error() const { return _error; }
  /// The connected socket.
  Descriptor take() { return std::move(_socket); }

 private:
  bool start(const sockaddr* address, socklen_t length);
  bool finish();
  bool fail(int number);
  void waitForRoom() const;

  const Stop& _stop;
  const Wakeup& _wakeup;
  Descriptor _socket;
  int _error = 0;
};

}  // namespace zephal::internal
