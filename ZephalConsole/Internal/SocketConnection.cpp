#include "ZephalConsole/Internal/SocketConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <array>
#include <cerrno>

namespace zephal::internal {
namespace {

// Short commands must leave at once, and a peer that vanished without a word must be noticed.
void setOptions(int socket) {
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

int pendingError(int socket) {
  int number = 0;
  socklen_t length = sizeof number;
  return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &number, &length) == 0 ? number : errno;
}

}  // namespace

bool SocketConnection::connect(const sockaddr* address, socklen_t length) {
  const int type = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
  _socket = Descriptor(::socket(address->sa_family, type, 0));
  if (!_socket.isValid()) return fail(errno);
  if (address->sa_family != AF_UNIX) setOptions(_socket.number());
  return start(address, length);
}

bool SocketConnection::start(const sockaddr* address, socklen_t length) {
  for (;;) {
    if (::connect(_socket.number(), address, length) == 0) return true;
    if (errno == EINPROGRESS || errno == EINTR) return finish();
    if (errno != EAGAIN) return fail(errno);
    // The listener of a unix socket has no room; there is nothing to poll for.
    if (_stop.isOver()) return fail(ECANCELED);
    if (_stop.deadline().hasPassed()) return fail(ETIMEDOUT);
    waitForRoom();
  }
}

bool SocketConnection::finish() {
  std::array<pollfd, 2> waiting{
      {{_socket.number(), POLLOUT, 0}, {_wakeup.descriptor(), POLLIN, 0}}};
  for (;;) {
    if (_stop.isOver()) return fail(ECANCELED);
    ::poll(waiting.data(), waiting.size(), _stop.slice().milliseconds());
    if (waiting[0].revents != 0) break;
    if (_stop.deadline().hasPassed()) return fail(ETIMEDOUT);
    if (waiting[1].revents != 0) _wakeup.clear();
  }
  const int number = pendingError(_socket.number());
  return number == 0 || fail(number);
}

bool SocketConnection::fail(int number) {
  _error = number;
  return false;
}

void SocketConnection::waitForRoom() const {
  constexpr int kMilliseconds = 10;
  pollfd waiting{_wakeup.descriptor(), POLLIN, 0};
  if (::poll(&waiting, 1, kMilliseconds) > 0) _wakeup.clear();
}

}  // namespace zephal::internal
