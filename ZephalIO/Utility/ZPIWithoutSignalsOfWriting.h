#pragma once

#include <csignal>

#include "Utility/ZPIBlockedSignals.h"

/// During its lifetime a write of the calling thread that fails only sets errno. Otherwise the
/// signals that can come with such a failure would end the process: SIGPIPE for a pipe without a
/// reader, SIGXFSZ for a file at its size limit. Must be destroyed on the thread that created it.
class ZPIWithoutSignalsOfWriting {
 public:
  ZPIWithoutSignalsOfWriting();

  /// Discards the signal that a write on this thread has just raised when it failed with
  /// `errorNumber`. A signal that was pending before is not this write's and stays pending. Call it
  /// after each failed write.
  void discardSignalOf(int errorNumber);

 private:
  void discard(int signal);

  const ZPIBlockedSignals _blocked;
  const sigset_t _pendingBefore;
};
