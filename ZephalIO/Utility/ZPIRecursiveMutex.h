#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "Utility/ZPKAtomic.h"

/// A mutex that the thread that holds it may lock again, as a callback within a long operation
/// does. It is released by as many unlocks as there were locks. A waiter sleeps in the system.
///
/// Like ZPKSmallMutex, it may only be locked by code of the shared library. After fork(2) a child
/// of the thread that held it still holds it; a child of another thread can never lock it.
class ZPIRecursiveMutex {
 public:
  void lock() {
    const pthread_t self = ::pthread_self();
    if (!isHeldBy(self)) {
      _mutex.lock();
      _owner.store(self, std::memory_order_relaxed);
    }
    ++_depth;
  }

  /// Locks it if no other thread holds it; returns whether it did.
  bool try_lock() {
    const pthread_t self = ::pthread_self();
    if (!isHeldBy(self)) {
      if (!_mutex.try_lock()) return false;
      _owner.store(self, std::memory_order_relaxed);
    }
    ++_depth;
    return true;
  }

  void unlock() {
    if (--_depth > 0) return;
    _owner.store(pthread_t(), std::memory_order_relaxed);
    _mutex.unlock();
  }

  /// Whether the calling thread, which holds it, has locked it more than once.
  bool isNested() const { return _depth > 1; }

 private:
  // Only the calling thread itself ever stores its own name, so no order is needed.
  bool isHeldBy(pthread_t self) const { return _owner.load(std::memory_order_relaxed) == self; }

  ZPKSmallMutex _mutex;
  uint32_t _depth = 0;              // guarded by _mutex
  std::atomic<pthread_t> _owner{};  // no thread's name while nobody holds _mutex
};
