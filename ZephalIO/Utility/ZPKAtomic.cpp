#include "Utility/ZPKAtomic.h"

void ZPKSmallMutex::lockContended() {
  while (_state.exchange(kContended, std::memory_order_acquire) != kFree) {
    _state.wait(kContended, std::memory_order_relaxed);
  }
}

void ZPKSmallMutex::wakeOne() { _state.notify_one(); }
