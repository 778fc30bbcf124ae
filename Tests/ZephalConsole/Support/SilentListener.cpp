#include "ZephalConsole/Support/SilentListener.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace support {
namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int makeSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

}  // namespace

// The system queues one connection more than listen(2) is told.
SilentListener::SilentListener(int peers) : _listener(makeSocket()) {
  const sockaddr_un address = addressOf(_folder.pathOf("socket"));
  const auto* place = reinterpret_cast<const sockaddr*>(&address);
  if (::bind(_listener, place, sizeof address) != 0 || ::listen(_listener, peers) != 0) {
    throw std::runtime_error("cannot listen");
  }
  _first = makeSocket();
  if (::connect(_first, place, sizeof address) != 0) throw std::runtime_error("cannot connect");
}

SilentListener::~SilentListener() {
  ::close(_first);
  ::close(_listener);
}

}  // namespace support
