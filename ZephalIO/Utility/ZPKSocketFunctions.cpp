#include "Utility/ZPKSocketFunctions.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

constexpr int kBacklog = 5;

int switchOn(int fd, int level, int option) {
  const int32_t value = 1;
  return ::setsockopt(fd, level, option, &value, sizeof value);
}

#ifndef SO_NOSIGPIPE
void ignoreSigpipeUnlessHandled() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action {};
    if (::sigaction(SIGPIPE, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) != 0) return;
    if (action.sa_handler != SIG_DFL) return;
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
  });
}
#endif

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

int passive_tcp(int port, bool reuse) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (reuse) {
    switchOn(fd, SOL_SOCKET, SO_REUSEADDR);
    switchOn(fd, SOL_SOCKET, SO_REUSEPORT);
  }
  // The family stays 0, which bind(2) takes for AF_INET when the address is INADDR_ANY.
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
  ::listen(fd, kBacklog);
  no_sigpipe(fd);
  tcp_nodelay(fd);
  return fd;
}

int active_tcp(const char* host, int port) { return active_tcp_ex(host, port, nullptr); }

int active_tcp_ex(const char* host, int port, int* out_fd) {
  sockaddr_in address = addressOnPort(port);
  address.sin_family = AF_INET;
  // A zeroed address would reach this very machine, so an unresolved host must not get to connect.
  const bool isResolved = resolve(host, &address.sin_addr);
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (out_fd != nullptr) *out_fd = fd;
  if (!isResolved) errno = EHOSTUNREACH;
  if (!isResolved ||
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int number = errno;
    ::close(fd);
    errno = number;
    fd = -1;
  }
  const int number = errno;
  no_sigpipe(fd);
  so_keepalive(fd);
  tcp_nodelay(fd);
  errno = number;
  if (out_fd != nullptr) *out_fd = fd;
  return fd;
}

int no_sigpipe(int fd) {
#ifdef SO_NOSIGPIPE
  return switchOn(fd, SOL_SOCKET, SO_NOSIGPIPE);
#else
  int type = 0;
  socklen_t length = sizeof type;
  if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0) return -1;
  ignoreSigpipeUnlessHandled();
  return 0;
#endif
}

int tcp_nodelay(int fd) { return switchOn(fd, IPPROTO_TCP, TCP_NODELAY); }

int so_keepalive(int fd) { return switchOn(fd, SOL_SOCKET, SO_KEEPALIVE); }
