#pragma once

#include <csignal>

#include "Utility/ZPIBlockedSignals.h"

/// Lets writes of the calling thread fail with their errno alone, for as long as it lives: the
/// default action of the signals that may come with a failure ends the process. They are SIGPIPE,
/// of a pipe without a reader, and SIGXFSZ, of a file at its size limit. Must be destroyed on the
/// thread that made it.
class ZPIWithoutSignalsOfWriting {
 public:
  ZPIWithoutSignalsOfWriting();

  /// Takes away the signal that a write which failed with `errorNumber` has just raised on this
  /// thread. One that was waiting before is somebody else's and stays. To be called after each
  /// failed write.
  void discardSignalOf(int errorNumber);

 private:
  void discard(int signal);

  const ZPIBlockedSignals _blocked;
  const sigset_t _pendingBefore;
};
