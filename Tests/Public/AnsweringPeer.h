#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

/// The peer's end of a connected pair of sockets: a thread that answers every line it receives.
class AnsweringPeer {
 public:
  /// Receives a line without its line feed and returns the bytes to send back.
  using Answer = std::function<std::string(const std::string& line)>;

  explicit AnsweringPeer(Answer answer) : _answer(std::move(answer)) {
    std::array<int, 2> ends{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) return;
    _nearEnd = ends[0];
    _farEnd = ends[1];
    _thread = std::thread([this] { serve(); });
  }
  AnsweringPeer(const AnsweringPeer&) = delete;
  AnsweringPeer& operator=(const AnsweringPeer&) = delete;
  ~AnsweringPeer() {
    hangUp();
    if (_thread.joinable()) _thread.join();
    ::close(_farEnd);
  }

  /// The caller's end, which the caller then owns.
  int takeSocket() { return std::exchange(_nearEnd, -1); }
  /// Sends something unasked.
  void say(std::string_view bytes) const {
    ::send(_farEnd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  /// Closes the connection.
  void hangUp() const { ::shutdown(_farEnd, SHUT_RDWR); }

 private:
  void serve() {
    std::string line;
    char byte = 0;
    while (::recv(_farEnd, &byte, 1, 0) == 1) {
      if (byte == '\n') {
        say(_answer(std::exchange(line, std::string())));
      } else {
        line += byte;
      }
    }
  }

  const Answer _answer;
  int _nearEnd = -1;
  int _farEnd = -1;
  std::thread _thread;
};
