#pragma once

#include <pthread.h>

#include <csignal>
#include <functional>

#include "Support/EventWait.h"

namespace support {

/// Handles a signal with a given function, without SA_RESTART, during its lifetime.
class SignalHandler {
 public:
  explicit SignalHandler(
      int signal, void (*handler)(int) = [](int) {})
      : _signal(signal) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(signal, &action, &_before);
  }
  SignalHandler(const SignalHandler&) = delete;
  SignalHandler& operator=(const SignalHandler&) = delete;
  ~SignalHandler() { ::sigaction(_signal, &_before, nullptr); }

 private:
  const int _signal;
  struct sigaction _before {};
};

/// Sends SIGUSR1 to a thread, again and again, until something has happened; false when the timeout
/// expires.
inline bool signalUntil(pthread_t thread, const std::function<bool()>& hasHappened) {
  return waitFor([&] {
    if (hasHappened()) return true;
    ::pthread_kill(thread, SIGUSR1);
    return false;
  });
}

}  // namespace support
