#include "Support/SignalMask.h"

#include <csignal>

namespace support {

bool isBlocked(int signal) {
  sigset_t mask;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return ::sigismember(&mask, signal) == 1;
}

bool isPending(int signal) {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, signal) == 1;
}

void block(int signal) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, signal);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace support
