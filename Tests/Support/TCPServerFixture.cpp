#include "Support/TCPServerFixture.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "Support/EventWait.h"
#include "Utility/ZPKSocketFunctions.h"

namespace support {

const ExpectedFailure kFailedStart{"zephal-communication", 7, "Failed to start server",
                                   "-[ZPKTCPServer checkHandleValidWithError:]",
                                   "ZPKTCPServer.cpp"};

std::string acceptLine(int number) {
  return std::string("Error : Failed to accept socket - '") + std::strerror(number) + "' (" +
         std::to_string(number) + ")\n";
}

int portOf(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return ntohs(address.sin_port);
}

Client::Client(int port) : _socket(active_tcp("127.0.0.1", port)) { EXPECT_GE(_socket, 0); }

Client::~Client() { ::close(_socket); }

void Client::send(const std::string& text) const {
  EXPECT_EQ(::send(_socket, text.data(), text.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(text.size()));
}

std::string Client::receive() const {
  char buffer[64];
  if (!waitUntilReadable(_socket)) return "";
  const ssize_t count = ::read(_socket, buffer, sizeof buffer);
  return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : "";
}

bool Client::sawTheEnd() const {
  char byte = 0;
  return waitUntilReadable(_socket) && ::read(_socket, &byte, 1) == 0;
}

Arrivals::~Arrivals() {
  for (const int socket : _sockets) ::close(socket);
  for (const auto& channel : _channels) channel->close();
}

ZPKTCPServer::ResponseBlock Arrivals::takeSockets() {
  return [this](int32_t socket) {
    const std::lock_guard guard(_mutex);
    _sockets.push_back(socket);
  };
}

ZPKTCPServer::ConnectionBlock Arrivals::takeChannels() {
  return [this](const ZPKDataChannelPtr& channel) {
    const std::lock_guard guard(_mutex);
    _channels.push_back(channel);
  };
}

size_t Arrivals::count() const {
  const std::lock_guard guard(_mutex);
  return _sockets.size() + _channels.size();
}

bool Arrivals::waitForCount(size_t wanted) const {
  return waitFor([&] { return count() >= wanted; });
}

int Arrivals::socket(size_t index) const {
  const std::lock_guard guard(_mutex);
  return _sockets.at(index);
}

ZPKDataChannelPtr Arrivals::channel(size_t index) const {
  const std::lock_guard guard(_mutex);
  return _channels.at(index);
}

void TCPServerFixture::expectIdle(const ZPKTCPServer& server, bool wasStopped) {
  EXPECT_EQ(server.handle(), -1);
  EXPECT_FALSE(server.responseBlock());
  EXPECT_FALSE(server.isListening());
  EXPECT_EQ(server.shouldCancel(), wasStopped);
  EXPECT_TRUE(pthread_equal(server.listenThread(), pthread_t()));
}

}  // namespace support
