#include "Support/TransportPeer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "Support/CheckedCalls.h"
#include "Support/EventWait.h"

namespace support {

TransportPeer::TransportPeer(Kind kind) : _kind(kind) {
  if (kind == Kind::kTerminal) {
    makeTerminal();
  } else if (kind == Kind::kAdopted) {
    int ends[2];
    checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    _line = ends[0];
    _nearEnd = ends[1];
  } else {
    makeListener();
  }
}

TransportPeer::~TransportPeer() {
  closeIfOpen(&_line);
  closeIfOpen(&_listener);
  if (_kind == Kind::kTerminal) closeIfOpen(&_nearEnd);
}

void TransportPeer::makeTerminal() {
  _line = checked(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
  checked(::grantpt(_line), "grantpt");
  checked(::unlockpt(_line), "unlockpt");
  char name[64] = "";
  if (::ptsname_r(_line, name, sizeof name) != 0) throw std::runtime_error("ptsname_r");
  _url = std::string("uart://") + name;
  _nearEnd = checked(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), "open");
}

void TransportPeer::makeListener() {
  const bool isTCP = _kind == Kind::kTCP;
  _listener = checked(::socket(isTCP ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  if (isTCP) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    checked(::bind(_listener, plain, length), "bind");
    checked(::getsockname(_listener, plain, &length), "getsockname");
    _url = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  } else {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, _folder.pathOf("peer").c_str(), sizeof address.sun_path - 1);
    checked(::bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
    _url = "unix://" + _folder.pathOf("peer");
  }
  checked(::listen(_listener, 5), "listen");
}

ZPKDataChannelPtr TransportPeer::makeChannel() {
  if (_kind == Kind::kAdopted) return createActiveTCPChannelWithSocket(_nearEnd);
  return createBaseChannelWithTransport(_url);
}

bool TransportPeer::open(const ZPKDataChannelPtr& channel) {
  if (_kind == Kind::kAdopted) return channel->isOpened();
  // The hold of the channel before outlives its close, since this end stays open.
  if (_kind == Kind::kTerminal) checked(::ioctl(_nearEnd, TIOCNXCL), "TIOCNXCL");
  if (!channel->openWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW)) return false;
  takeConnection();
  return true;
}

void TransportPeer::takeConnection() {
  if (_listener < 0) return;
  closeIfOpen(&_line);
  _line = checked(::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC), "accept4");
  const int on = 1;
  if (_kind == Kind::kTCP) ::setsockopt(_line, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void TransportPeer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(_line, bytes.data(), bytes.size());
    if (count <= 0) throw std::system_error(errno, std::generic_category(), "write");
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  if (_kind != Kind::kTerminal) return;
  // A terminal hands bytes on in the background.
  ::tcdrain(_line);
  waitFor([this] {
    int waiting = 0;
    ::ioctl(_nearEnd, FIONREAD, &waiting);
    return waiting > 0;
  });
}

std::string TransportPeer::receive(size_t count) {
  std::string text(count, '\0');
  size_t have = 0;
  while (have < count && waitUntilReadable(_line)) {
    const ssize_t result = ::read(_line, text.data() + have, count - have);
    if (result <= 0) break;
    have += static_cast<size_t>(result);
  }
  text.resize(have);
  return text;
}

void TransportPeer::hangUp() {
  if (_kind == Kind::kTerminal) closeIfOpen(&_nearEnd);
  closeIfOpen(&_line);
}

std::string transportName(TransportPeer::Kind kind) {
  switch (kind) {
    case TransportPeer::Kind::kTerminal: return "Terminal";
    case TransportPeer::Kind::kTCP: return "TCP";
    case TransportPeer::Kind::kUnix: return "Unix";
    case TransportPeer::Kind::kAdopted: return "Adopted";
  }
  return "";
}

}  // namespace support
