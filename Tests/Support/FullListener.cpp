#include "Support/FullListener.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "Support/CheckedCalls.h"
#include "Support/EventWait.h"
#include "Support/LineEnds.h"
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

FullListener::FullListener(Kind kind) {
  const Listener listener = kind == Kind::kTCP ? listenOverTCP(0) : listenAt(path(), 0);
  _url = listener.url();
  _port = listener.port;
  _listener = listener.descriptor;
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  checked(::getsockname(_listener, plain, &length), "getsockname");
  _filling = checked(::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  checked(::connect(_filling, plain, length), "connect");
}

FullListener::~FullListener() {
  for (int* const descriptor : {&_listener, &_filling, &_taken}) closeIfOpen(descriptor);
}

void FullListener::makeRoom() { _taken = acceptFrom(_listener); }

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
