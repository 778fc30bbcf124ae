#include "Hostile/FloodPeer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "Support/LineEnds.h"

FloodPeer::FloodPeer(Kind kind, Start start, const std::string& text, std::string end)
    : _text(text), _end(std::move(end)) {
  const bool isUnix = kind == Kind::kUnix;
  const support::Listener listener =
      isUnix ? support::listenAt(_folder.pathOf("line")) : support::listenOverTCP();
  _listener = listener.descriptor;
  _url = isUnix ? listener.url() : "telnet://127.0.0.1:" + std::to_string(listener.port);
  _thread = std::thread([this, start] { serve(start); });
}

FloodPeer::~FloodPeer() {
  ::shutdown(_listener, SHUT_RDWR);
  _thread.join();
  if (_line >= 0) ::close(_line);
  ::close(_listener);
}

void FloodPeer::serve(Start start) const {
  _line = ::accept(_listener, nullptr, nullptr);
  char byte = 0;
  while (start == Start::kAfterALine && byte != '\n' && ::recv(_line, &byte, 1, 0) == 1) {
  }
  if (send(_text)) send(_end);
}

bool FloodPeer::send(const std::string& text) const {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = ::send(_line, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}
