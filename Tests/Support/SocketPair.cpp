#include "Support/SocketPair.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>

#include "Support/CheckedCalls.h"

namespace support {

SocketPair::SocketPair() {
  std::array<int, 2> ends{-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  ours = ends[0];
  peers = ends[1];
}

SocketPair::~SocketPair() {
  closeIfOpen(&ours);
  closeIfOpen(&peers);
}

void SocketPair::send(std::string_view text) const {
  EXPECT_EQ(::send(peers, text.data(), text.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(text.size()));
}

std::string SocketPair::receive() const {
  std::array<char, 4096> buffer;
  const ssize_t count = ::recv(peers, buffer.data(), buffer.size(), MSG_DONTWAIT);
  return count < 0 ? "" : std::string(buffer.data(), static_cast<size_t>(count));
}

void SocketPair::closePeer() { closeIfOpen(&peers); }

}  // namespace support
