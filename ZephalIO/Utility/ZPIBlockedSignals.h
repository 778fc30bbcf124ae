#pragma once

#include <csignal>

/// Keeps signals from the calling thread for as long as it lives. A thread that is started
/// meanwhile never gets them. Must be destroyed on the thread that made it.
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
