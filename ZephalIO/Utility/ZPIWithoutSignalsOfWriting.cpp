#include "Utility/ZPIWithoutSignalsOfWriting.h"

#include <cerrno>

namespace {

sigset_t signalsOfWriting() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGXFSZ);
  ::sigaddset(&signals, SIGPIPE);
  return signals;
}

sigset_t pendingSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigpending(&signals);
  return signals;
}

bool contains(const sigset_t& signals, int signal) { return ::sigismember(&signals, signal) == 1; }

}  // namespace

ZPIWithoutSignalsOfWriting::ZPIWithoutSignalsOfWriting()
    : _blocked(signalsOfWriting()), _pendingBefore(pendingSignals()) {}

void ZPIWithoutSignalsOfWriting::discardSignalOf(int errorNumber) {
  if (errorNumber == EFBIG) discard(SIGXFSZ);
  if (errorNumber == EPIPE) discard(SIGPIPE);
}

void ZPIWithoutSignalsOfWriting::discard(int signal) {
  if (contains(_pendingBefore, signal) || !contains(pendingSignals(), signal)) return;
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, signal);
  int taken = 0;
  ::sigwait(&signals, &taken);
}
