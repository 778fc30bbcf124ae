#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>
#include <vector>

#include "Data Server/ZPKTCPServer.h"
#include "Stress/Episodes.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/CheckedCalls.h"
#include "Support/RunTogether.h"
#include "Support/TCPServerFixture.h"

namespace support {

namespace {

constexpr std::string_view kGreeting = "welcome\n";

int listenOnLoopback() {
  const int listener = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  checked(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
  checked(::listen(listener, 16), "listen");
  return listener;
}

// A client's connection. The end of the server loses those that it has not accepted, and their
// clients do not notice before they send something.
class Visit {
 public:
  explicit Visit(int port)
      : _socket(checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
    const timeval limit{0, 20000};
    ::setsockopt(_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    _isOver = ::connect(_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;
  ~Visit() { ::close(_socket); }

  /// All bytes until the end; none if the visitor was refused.
  std::string receive() {
    while (!_isOver) receiveSome();
    return _received;
  }

 private:
  void receiveSome() {
    std::array<char, 64> buffer{};
    const ssize_t count = ::recv(_socket, buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EAGAIN) {
      ::send(_socket, "?", 1, MSG_NOSIGNAL);
    } else if (count > 0) {
      _received.append(buffer.data(), static_cast<size_t>(count));
    } else {
      _isOver = true;
    }
  }

  const int _socket;
  bool _isOver = false;
  std::string _received;
};

class Service {
 public:
  explicit Service(Dice& dice) : _dice(dice) {}

  void run() {
    _server = start();
    const int port = portOf(_server->handle());
    const size_t visits = 1 + _dice.below(30);
    std::vector<std::function<void()>> bodies = {[this, own = _dice.child()] { stop(own); },
                                                 [this, own = _dice.child()] { look(own); }};
    for (size_t clients = 1 + _dice.below(4); clients > 0; --clients) {
      bodies.emplace_back([this, port, visits, own = _dice.child()] { come(own, port, visits); });
    }
    runTogether(bodies);
    for (std::thread& thread : _threads) thread.join();
    require(_greeted <= _accepted, "more were greeted than accepted");
  }

 private:
  ZPKTCPServerPtr start() {
    ZPKErrorPtr error;
    const bool isOwn = _dice.oneIn(2);
    const auto onSocket = [this](int32_t socket) {
      greet(createActiveTCPChannelWithSocket(socket));
    };
    const auto server =
        isOwn ? startTCPOnSocket(listenOnLoopback(), onSocket, &error)
              : startTCPServerOnPort(
                    0, [this](const ZPKDataChannelPtr& channel) { greet(channel); }, &error);
    require(error == nullptr, "cannot be started", error);
    return server;
  }

  // Some are served on a thread of their own.
  void greet(const ZPKDataChannelPtr& channel) {
    const auto serve = [channel] {
      channel->write(dataOf(kGreeting));
      require(channel->close(), "a connection cannot be closed");
    };
    if (++_accepted % 2 == 0) return serve();
    const std::lock_guard guard(_mutex);
    _threads.emplace_back(serve);
  }

  void come(Dice dice, int port, size_t visits) {
    for (; visits > 0; --visits) {
      const std::string received = Visit(port).receive();
      require(received.empty() || received == kGreeting, "a client received: " + received);
      if (!received.empty()) ++_greeted;
      dice.pause(std::chrono::microseconds(500));
    }
  }

  void stop(Dice dice) {
    std::this_thread::sleep_for(std::chrono::microseconds(dice.below(20000)));
    ZPKErrorPtr error;
    require(_server->stop(&error), "cannot be stopped", error);
    _isStopped = true;
    const size_t accepted = _accepted;
    require(!_server->stop(&error), "stopped twice");
    require(_accepted == accepted, "accepted after a stop");
    require(_server->handle() == -1 && _server->shouldCancel(), "not stopped");
  }

  void look(Dice dice) const {
    while (!_isStopped) {
      require(!_server->isListening(), "listening");
      _server->handle();
      _server->shouldCancel();
      if (dice.oneIn(4)) _server->setResponseBlock(_server->responseBlock());
      dice.pause(std::chrono::microseconds(500));
    }
  }

  Dice& _dice;
  ZPKTCPServerPtr _server;
  std::mutex _mutex;
  std::vector<std::thread> _threads;
  std::atomic<size_t> _accepted{0};
  std::atomic<size_t> _greeted{0};
  std::atomic<bool> _isStopped{false};
};

}  // namespace

void serverBesideClients(Dice& dice) {
  for (size_t services = 1 + dice.below(4); services > 0; --services) Service(dice).run();
}

}  // namespace support
