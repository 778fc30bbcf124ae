#include "Utility/ZPISocket.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "Utility/ZPKSocketFunctions.h"

namespace {

// If a signal interrupts connect, the system continues to connect and reports the outcome one time.
int waitForConnection(int fd) {
  pollfd entry{fd, POLLOUT, 0};
  while (::poll(&entry, 1, -1) == -1) {
    if (errno != EINTR && errno != EAGAIN) return -1;
  }
  int number = 0;
  socklen_t length = sizeof number;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &number, &length) == -1) return -1;
  if (number == 0) return 0;
  errno = number;
  return -1;
}

}  // namespace

int ZPIMakeSocket(int family, ZPISocketOwner owner) {
  if (owner == ZPISocketOwner::kUser) return ::socket(family, SOCK_STREAM, 0);
#ifdef SOCK_CLOEXEC
  return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
#else
  const int fd = ::socket(family, SOCK_STREAM, 0);
  ZPICloseOnExec(fd);
  return fd;
#endif
}

int ZPIConnect(int fd, const sockaddr* address, socklen_t length) {
  if (fd == -1) return -1;  // errno says why there is no socket
  int result = ::connect(fd, address, length);
  // A unix socket that waits for room in the backlog has not begun to connect: poll would report it
  // as writable, with no error.
  while (result == -1 && errno == EINTR && address->sa_family == AF_UNIX) {
    result = ::connect(fd, address, length);
  }
  return result == -1 && errno == EINTR ? waitForConnection(fd) : result;
}

void ZPIAvoidSigpipe(int fd, [[maybe_unused]] ZPISocketOwner owner) {
#ifndef SO_NOSIGPIPE
  // Without that option no_sigpipe changes the whole process.
  if (owner == ZPISocketOwner::kLibrary) return;
#endif
  no_sigpipe(fd);
}

int ZPIAccept(int listener) {
  sockaddr address{};  // not used
  socklen_t length = sizeof address;
#ifdef SOCK_CLOEXEC
  return ::accept4(listener, &address, &length, SOCK_CLOEXEC);
#else
  const int connection = ::accept(listener, &address, &length);
  if (connection != -1) ZPICloseOnExec(connection);
  return connection;
#endif
}

void ZPICloseOnExec(int descriptor) {
  if (descriptor > STDERR_FILENO) ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}
