// A property that one thread may read while another sets it.
//
// These classes are in the public headers only because exported classes have fields of them. A
// caller's program neither runs their code nor depends on their size, and none of it is exported,
// so everything here may change.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>

/// A mutex of four bytes: objects here have up to a dozen properties each, and a station has
/// hundreds of objects. A waiter sleeps in the system; nothing spins without limit.
///
/// Only code of the shared library may lock it. The standard library counts the waiters of an
/// atomic in a table of its own. The shared library and the program may each have such a table, and
/// a wake that looks into a different table than the waiter's is lost.
class ZPKSmallMutex {
 public:
  void lock() {
    uint32_t expected = kFree;
    if (_state.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
      return;
    }
    lockContended();
  }

  /// Locks it if nobody holds it; returns whether it did.
  bool try_lock() {
    uint32_t expected = kFree;
    return _state.compare_exchange_strong(expected, kHeld);
  }

  /// An unlock, a try_lock and the changes of a ZPKAtomic have one order for all threads: of one
  /// thread that unlocks and then looks at a property, and another that sets it and then tries the
  /// lock, at least one sees what the other did.
  void unlock() {
    if (_state.exchange(kFree) == kContended) wakeOne();
  }

 private:
  void lockContended();
  void wakeOne();

  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kContended = 2;

  std::atomic<uint32_t> _state{kFree};
};

/// A property of any copyable type that may be read on any thread while another replaces it.
template <class T>
class ZPKAtomic {
 public:
  explicit ZPKAtomic(T value = T()) : _value(std::move(value)) {}

  T load() const {
    const std::lock_guard guard(_mutex);
    return _value;
  }

  // The old value is destroyed outside the lock: its destructor may run a caller's code.
  void store(T value) { exchange(std::move(value)); }

  /// Replaces the value and returns the old one.
  T exchange(T value) {
    const std::lock_guard guard(_mutex);
    std::swap(_value, value);
    _version.fetch_add(1);
    return value;
  }

  /// Another number after each change.
  uint32_t version() const { return _version.load(); }

  /// A reader's own copy of a property, renewed only when the property was replaced: reading an
  /// unchanged property costs one atomic load. For one thread at a time.
  class Snapshot {
   public:
    explicit Snapshot(const ZPKAtomic& property)
        : _property(property), _version(property.version()), _value(property.load()) {}

    /// The property's present value; the reference is valid until the next call.
    const T& current() {
      if (_property.version() != _version) renew();
      return _value;
    }

   private:
    // Reads the version first: after a store in between, the next read renews the copy again. Not
    // inlined, so that a read of an unchanged property stays short.
    [[gnu::noinline]] void renew() {
      _version = _property.version();
      _value = _property.load();
    }

    const ZPKAtomic& _property;
    uint32_t _version;
    T _value;
  };

 private:
  mutable ZPKSmallMutex _mutex;
  std::atomic<uint32_t> _version{0};
  T _value;
};
