#pragma once

#include <csignal>

namespace support {

/// Handles a signal with a function of its own, without SA_RESTART, for as long as it lives.
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

}  // namespace support
