#include "Endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int checked(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::exit(1);
}

int connectUnix(const std::string& path) {
  const int fd = checked(::socket(AF_UNIX, SOCK_STREAM, 0), "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  checked(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
  return fd;
}

int connectTcp(int port) {
  const int fd = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  checked(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

}  // namespace

const char* nameOf(Transport transport) {
  switch (transport) {
    case Transport::Tcp: return "TCP";
    case Transport::Unix: return "unix";
    case Transport::Pty: return "pty";
  }
  return "";
}

Endpoint Endpoint::fromURL(const std::string& url) {
  const std::string place = url.substr(url.find("://") + 3);
  if (url.starts_with("uart:")) return {Transport::Pty, place, 0};
  if (url.starts_with("unix:")) return {Transport::Unix, place, 0};
  return {Transport::Tcp, "", std::atoi(place.c_str() + place.find(':') + 1)};
}

std::string Endpoint::url() const {
  switch (transport) {
    case Transport::Pty: return "uart://" + path;
    case Transport::Unix: return "unix://" + path;
    case Transport::Tcp: return "tcp://127.0.0.1:" + std::to_string(port);
  }
  return "";
}

int Endpoint::connect() const {
  switch (transport) {
    case Transport::Pty: return openRawTerminal(path);
    case Transport::Unix: return connectUnix(path);
    case Transport::Tcp: return connectTcp(port);
  }
  return -1;
}

int openRawTerminal(const std::string& path) {
  const int fd = checked(::open(path.c_str(), O_RDWR | O_NOCTTY), "open pty");
  termios attributes{};
  ::tcgetattr(fd, &attributes);
  ::cfmakeraw(&attributes);
  ::tcsetattr(fd, TCSANOW, &attributes);
  return fd;
}
