#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

/// A vector of plain values whose storage, one malloc(3) block, can be given away: bytes that were
/// collected in it become a ZPKMutableData without a copy. It grows by realloc(3), which moves the
/// pages of a long block instead of copying them, and initialises nothing that is then overwritten.
/// No lock. Memory that cannot be had throws std::bad_alloc and leaves the vector as it was.
template <class T>
class ZPIHeapVector {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

 public:
  ZPIHeapVector() = default;
  ZPIHeapVector(const ZPIHeapVector&) = delete;
  ZPIHeapVector& operator=(const ZPIHeapVector&) = delete;
  ~ZPIHeapVector() { std::free(_values); }

  /// The first value; null before the first append.
  const T* data() const { return _values; }
  size_t size() const { return _size; }
  size_t capacity() const { return _capacity; }
  bool empty() const { return _size == 0; }

  /// Adds copies of `count` values, which are not the vector's own, at the end.
  void append(const T* values, size_t count) {
    if (count == 0) return;
    std::memcpy(extend(count), values, count * sizeof(T));
  }

  /// Adds `count` values at the end that hold nothing yet, and returns the first of them for the
  /// caller to set; valid until the next addition.
  T* extend(size_t count) {
    if (count > _capacity - _size) grow(count);
    T* const added = _values + _size;
    _size += count;
    return added;
  }

  /// Exchanges the contents of two vectors, without a copy.
  void swap(ZPIHeapVector& other) noexcept {
    std::swap(_values, other._values);
    std::swap(_size, other._size);
    std::swap(_capacity, other._capacity);
  }

  /// Gives the storage away and leaves the vector empty. The caller frees it with free(3).
  T* release() noexcept {
    _size = 0;
    _capacity = 0;
    return std::exchange(_values, nullptr);
  }

 private:
  // Room for a short answer of a device at the first append.
  static constexpr size_t kSmallestCapacity = 32;
  static constexpr size_t kLargestCapacity = std::numeric_limits<ptrdiff_t>::max() / sizeof(T);

  // Doubles, so that appending costs amortised constant time.
  void grow(size_t count) {
    if (count > kLargestCapacity - _size) throw std::bad_alloc();
    const size_t capacity = std::max({_size + count, _size * 2, kSmallestCapacity});
    auto* grown = static_cast<T*>(std::realloc(_values, capacity * sizeof(T)));
    if (grown == nullptr) throw std::bad_alloc();
    _values = grown;
    _capacity = capacity;
  }

  T* _values = nullptr;
  size_t _size = 0;
  size_t _capacity = 0;
};
