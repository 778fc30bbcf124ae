#include "Support/FullListener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "Support/CheckedCalls.h"
#include "Support/EventWait.h"
#include "Support/SignalHandler.h"
#include "Support/SystemCalls.h"

namespace support {

namespace {

constexpr int kFurtherSignals = 3;

std::atomic<int> handledSignals = 0;
static_assert(std::atomic<int>::is_always_lock_free);

bool wasInterrupted(const SystemCalls& calls) {
  const std::vector<SystemCall> all = calls.all();
  return std::any_of(all.begin(), all.end(), [](const SystemCall& call) {
    return call.name == "connect" && call.result == -1 && call.error == EINTR;
  });
}

}  // namespace

FullListener::FullListener(Kind kind) : _kind(kind) {
  sockaddr_storage address{};
  socklen_t length = sizeof(sockaddr_in);
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (kind == Kind::kTCP) {
    auto* const internet = reinterpret_cast<sockaddr_in*>(&address);
    internet->sin_family = AF_INET;
    internet->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  } else {
    auto* const local = reinterpret_cast<sockaddr_un*>(&address);
    local->sun_family = AF_UNIX;
    std::strncpy(local->sun_path, path().c_str(), sizeof local->sun_path - 1);
    length = sizeof(sockaddr_un);
  }
  const int family = address.ss_family;
  _listener = checked(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  checked(::bind(_listener, plain, length), "bind");
  checked(::listen(_listener, 0), "listen");
  checked(::getsockname(_listener, plain, &length), "getsockname");
  if (kind == Kind::kTCP) _port = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  _filling = checked(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  checked(::connect(_filling, plain, length), "connect");
}

FullListener::~FullListener() {
  for (int* const descriptor : {&_listener, &_filling, &_taken}) closeIfOpen(descriptor);
}

std::string FullListener::url() const {
  return _kind == Kind::kTCP ? "tcp://127.0.0.1:" + std::to_string(_port) : "unix://" + path();
}

void FullListener::makeRoom() {
  _taken = checked(::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC), "accept4");
}

void FullListener::goAway() { closeIfOpen(&_listener); }

void connectUnderSignals(const std::function<void()>& connect, const std::function<void()>& then) {
  const SystemCalls calls;
  const SignalHandler handler(SIGUSR1, [](int) { ++handledSignals; });
  const pthread_t connecting = pthread_self();
  std::atomic<bool> isBack = false;
  std::thread interrupting([&] {
    int enough = 0;
    const bool wasInTime = waitFor([&] {
      if (isBack) return true;
      pthread_kill(connecting, SIGUSR1);
      if (!wasInterrupted(calls)) enough = handledSignals + kFurtherSignals;
      return handledSignals >= enough;
    });
    EXPECT_TRUE(wasInTime && !isBack);
    then();
  });
  connect();
  isBack = true;
  interrupting.join();
}

}  // namespace support
