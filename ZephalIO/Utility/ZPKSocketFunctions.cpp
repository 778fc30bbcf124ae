#include "Utility/ZPKSocketFunctions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdint>

#include "Utility/ZPITCPSocketFunctions.h"

namespace {

int switchOn(int fd, int level, int option) {
  const int32_t value = 1;
  return ::setsockopt(fd, level, option, &value, sizeof value);
}

#ifndef SO_NOSIGPIPE
bool isDefault(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL;
}

// Checks at every call, since the host program may have restored the default.
void ignoreSigpipeUnlessHandled() {
  struct sigaction before {};
  if (::sigaction(SIGPIPE, nullptr, &before) != 0 || !isDefault(before)) return;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  if (::sigaction(SIGPIPE, &ignore, &before) != 0) return;
  // Another thread has set a handler in the meantime.
  if (!isDefault(before)) ::sigaction(SIGPIPE, &before, nullptr);
}
#endif

}  // namespace

int passive_tcp(int port, bool reuse) { return ZPIPassiveTCP(port, reuse, ZPISocketOwner::kUser); }

int active_tcp(const char* host, int port) { return active_tcp_ex(host, port, nullptr); }

int active_tcp_ex(const char* host, int port, int* out_fd) {
  return ZPIActiveTCP(host, port, out_fd, ZPISocketOwner::kUser);
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
