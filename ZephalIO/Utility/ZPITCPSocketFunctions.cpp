#include "Utility/ZPITCPSocketFunctions.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Utility/ZPKSocketFunctions.h"

namespace {

void switchOn(int fd, int option) {
  const int32_t value = 1;
  ::setsockopt(fd, SOL_SOCKET, option, &value, sizeof value);
}

sockaddr_in addressOnPort(int port) {
  sockaddr_in address{};
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

bool resolve(const char* host, in_addr* address) {
  if (host == nullptr) return false;
  if (::inet_aton(host, address) != 0) return true;
  const hostent* record = ::gethostbyname(host);
  if (record == nullptr || record->h_addrtype != AF_INET) return false;
  if (record->h_addr_list[0] == nullptr) return false;
  std::memcpy(address, record->h_addr_list[0], sizeof *address);
  return true;
}

}  // namespace

int ZPIPassiveTCP(int port, bool reuse, ZPISocketOwner owner) {
  const int fd = ZPIMakeSocket(AF_INET, owner);
  if (reuse) {
    switchOn(fd, SO_REUSEADDR);
    switchOn(fd, SO_REUSEPORT);
  }
  // The family stays 0, which bind(2) treats as AF_INET if the address is INADDR_ANY.
  const sockaddr_in address = addressOnPort(port);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int number = errno;
    if (number == EADDRINUSE) {
      std::printf("Error : port %d is busy (errno=%d)\n", port, number);
    } else {
      std::printf("Error : port %d is restricted (errno=%d)\n", port, number);
    }
    ::close(fd);
    errno = number;
    return -1;
  }
  ::listen(fd, kZPIBacklog);
  ZPIAvoidSigpipe(fd, owner);
  tcp_nodelay(fd);
  return fd;
}

int ZPIActiveTCP(const char* host, int port, int* out_fd, ZPISocketOwner owner) {
  sockaddr_in address = addressOnPort(port);
  address.sin_family = AF_INET;
  // A zero address would reach this machine, so connect must not be called for an unresolved host.
  const bool isResolved = resolve(host, &address.sin_addr);
  int fd = ZPIMakeSocket(AF_INET, owner);
  if (out_fd != nullptr) *out_fd = fd;
  if (!isResolved) errno = EHOSTUNREACH;
  if (!isResolved ||
      ZPIConnect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int number = errno;
    ::close(fd);
    errno = number;
    fd = -1;
  }
  const int number = errno;
  ZPIAvoidSigpipe(fd, owner);
  so_keepalive(fd);
  tcp_nodelay(fd);
  errno = number;
  if (out_fd != nullptr) *out_fd = fd;
  return fd;
}
