#include "Support/LineEnds.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <system_error>

#include "Support/CheckedCalls.h"

namespace support {

Terminal openTerminal() {
  Terminal terminal;
  terminal.farEnd = checked(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
  checked(::grantpt(terminal.farEnd), "grantpt");
  checked(::unlockpt(terminal.farEnd), "unlockpt");
  char name[64] = "";
  const int number = ::ptsname_r(terminal.farEnd, name, sizeof name);
  if (number != 0) throw std::system_error(number, std::generic_category(), "ptsname_r");
  terminal.path = name;
  terminal.nearEnd = checked(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), "open");
  return terminal;
}

std::string Listener::url() const {
  return path.empty() ? "tcp://127.0.0.1:" + std::to_string(port) : "unix://" + path;
}

Listener listenOverTCP(int backlog) {
  Listener listener;
  listener.descriptor = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address{};
  socklen_t length = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  checked(::bind(listener.descriptor, plain, length), "bind");
  checked(::getsockname(listener.descriptor, plain, &length), "getsockname");
  listener.port = ntohs(address.sin_port);
  checked(::listen(listener.descriptor, backlog), "listen");
  return listener;
}

Listener listenAt(const std::string& path, int backlog) {
  Listener listener;
  listener.path = path;
  listener.descriptor = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  checked(::bind(listener.descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address),
          "bind");
  checked(::listen(listener.descriptor, backlog), "listen");
  return listener;
}

int acceptFrom(int listener) {
  return checked(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept4");
}

}  // namespace support
