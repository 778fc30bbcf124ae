#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace support {

/// A pair of connected stream sockets: ours and the peer's. Closes what is still open.
class SocketPair {
 public:
  SocketPair();
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair();

  /// For a caller that closes it itself, such as a channel.
  int takeOurs() { return std::exchange(ours, -1); }
  int takePeers() { return std::exchange(peers, -1); }

  /// Sends from the peer's end.
  void send(std::string_view text) const;
  /// The bytes that wait at the peer's end, at most 4096; "" if there are none.
  std::string receive() const;
  void closePeer();

  int ours = -1;   // -1 once taken
  int peers = -1;  // -1 once taken or closed
};

}  // namespace support
