#include "Support/TransportPeer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Support/CheckedCalls.h"
#include "Support/EventWait.h"
#include "Support/LineEnds.h"
#include "Support/SocketPair.h"

namespace support {

TransportPeer::TransportPeer(Kind kind) : _kind(kind) {
  if (kind == Kind::kTerminal) {
    makeTerminal();
  } else if (kind == Kind::kAdopted) {
    SocketPair pair;
    _line = pair.takePeers();
    _nearEnd = pair.takeOurs();
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
  const Terminal terminal = openTerminal();
  _line = terminal.farEnd;
  _nearEnd = terminal.nearEnd;
  _url = terminal.url();
}

void TransportPeer::makeListener() {
  const bool isTCP = _kind == Kind::kTCP;
  const Listener listener = isTCP ? listenOverTCP() : listenAt(_folder.pathOf("peer"));
  _listener = listener.descriptor;
  _url = listener.url();
}

ZPKDataChannelPtr TransportPeer::makeChannel() {
  if (_kind == Kind::kAdopted) return createActiveTCPChannelWithSocket(_nearEnd);
  return createBaseChannelWithTransport(_url);
}

bool TransportPeer::open(const ZPKDataChannelPtr& channel) {
  if (_kind == Kind::kAdopted) return channel->isOpened();
  // The exclusive hold of an earlier channel outlives its close, since this end stays open.
  if (_kind == Kind::kTerminal) checked(::ioctl(_nearEnd, TIOCNXCL), "TIOCNXCL");
  if (!channel->openWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW)) return false;
  takeConnection();
  return true;
}

void TransportPeer::takeConnection() {
  if (_listener < 0) return;
  closeIfOpen(&_line);
  _line = acceptFrom(_listener);
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
  // A terminal passes bytes on in the background.
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
