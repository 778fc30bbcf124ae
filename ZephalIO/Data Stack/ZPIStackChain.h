#pragma once

#include <atomic>
#include <cstdint>

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPIRecursiveMutex.h"
#include "Utility/ZPKAtomic.h"

/// The lock of a stack's operations, and the property that is the top of its chain. Any thread may
/// load and store the property at any time, also while an operation uses the chain.
///
/// An operation takes no reference to the chain, since each line would pay for the two atomic
/// changes of its count. `_current`, a copy of the property, keeps the chain alive instead. It is
/// stale after a store, until it is renewed:
///
///     no operation runs    store renews it, which releases the old chain
///     an operation runs    the end of the outermost operation renews it
///
/// A store that meets the end of an operation: it sets the property and then tries the lock, and
/// the operation releases the lock and then looks at the property. These four steps have one order
/// for all threads (see ZPKSmallMutex), so at least one of the two notices the other and renews. A
/// chain that is stored and replaced while one operation runs never becomes `_current`, so it is
/// released immediately.
class ZPIStackChain {
 public:
  ZPIStackChain() = default;
  ZPIStackChain(const ZPIStackChain&) = delete;
  ZPIStackChain& operator=(const ZPIStackChain&) = delete;

  /// The top of the chain; may be null.
  ZPKDataChannelPtr load() const { return _property.load(); }
  /// Replaces the chain. An operation that is running continues with the one that it has.
  void store(ZPKDataChannelPtr chain);

  /// An operation of the stack: holds the lock while it exists. It may contain others of the same
  /// thread, such as those of a callback within a read.
  class Operation {
   public:
    explicit Operation(ZPIStackChain& stack) : _stack(stack) {
      stack._lock.lock();
      _chain = stack.isStale() ? renewed() : stack._current.get();
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation() { _stack.endOperation(); }

    /// The top of the chain when the operation began; may be null. Valid until it ends.
    ZPKDataChannel* chain() const { return _chain; }

   private:
    ZPKDataChannel* renewed();

    ZPIStackChain& _stack;
    ZPKDataChannel* _chain;
    ZPKDataChannelPtr _own;  // holds `_chain` if it was stored during the operation around this one
  };

 private:
  bool isStale() const {
    return _property.version() != _currentVersion.load(std::memory_order_relaxed);
  }

  void endOperation() {
    if (_lock.isNested()) return _lock.unlock();
    if (isStale()) renew();
    _lock.unlock();
    if (isStale()) renewIfIdle();
  }

  void renew();
  ZPKDataChannelPtr exchangeCurrent();
  void renewIfIdle();

  ZPIRecursiveMutex _lock;
  std::atomic<uint32_t> _currentVersion{0};  // that of _property; changed with _lock held
  ZPKAtomic<ZPKDataChannelPtr> _property;
  ZPKDataChannelPtr _current;  // guarded by _lock
};
