#include "Utility/ZPISocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Utility/ZPKSocketFunctions.h"

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

void ZPIAvoidSigpipe(int fd, [[maybe_unused]] ZPISocketOwner owner) {
#ifndef SO_NOSIGPIPE
  // Without that option no_sigpipe changes the whole process.
  if (owner == ZPISocketOwner::kLibrary) return;
#endif
  no_sigpipe(fd);
}

int ZPIAccept(int listener) {
  sockaddr address{};  // nobody looks at it
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
