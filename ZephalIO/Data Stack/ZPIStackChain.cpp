#include "Data Stack/ZPIStackChain.h"

#include <utility>

// The chains are destroyed at the very end: their destructors may run a caller's code, which may
// destroy the stack.
void ZPIStackChain::store(ZPKDataChannelPtr chain) {
  const ZPKDataChannelPtr replaced = _property.exchange(std::move(chain));
  renewIfIdle();
}

// Makes the property's chain the current one, which releases the old one. With the lock held, by an
// operation that is not within another.
void ZPIStackChain::renew() { exchangeCurrent(); }

ZPKDataChannelPtr ZPIStackChain::exchangeCurrent() {
  // The version first: after a store in between, the new copy is stale.
  _currentVersion.store(_property.version(), std::memory_order_relaxed);
  return std::exchange(_current, _property.load());
}

// Leaves it to the operation that is running, if there is one, on this thread or another.
void ZPIStackChain::renewIfIdle() {
  if (!_lock.try_lock()) return;
  const bool isIdle = !_lock.isNested();
  const ZPKDataChannelPtr released = isIdle ? exchangeCurrent() : nullptr;
  _lock.unlock();
  if (isIdle && isStale()) renewIfIdle();
}

ZPKDataChannel* ZPIStackChain::Operation::renewed() {
  if (_stack._lock.isNested()) {
    _own = _stack.load();
    return _own.get();
  }
  _stack.renew();
  return _stack._current.get();
}
