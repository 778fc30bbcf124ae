#pragma once

#include <csignal>

/// Blocks signals on the calling thread during its lifetime (pthread_sigmask(3)). A thread that is
/// started in the meantime never gets them. Must be destroyed on the thread that created it.
class ZPIBlockedSignals {
 public:
  explicit ZPIBlockedSignals(const sigset_t& signals) {
    ::pthread_sigmask(SIG_BLOCK, &signals, &_before);
  }
  ZPIBlockedSignals(const ZPIBlockedSignals&) = delete;
  ZPIBlockedSignals& operator=(const ZPIBlockedSignals&) = delete;
  ~ZPIBlockedSignals() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

 private:
  sigset_t _before;
};
