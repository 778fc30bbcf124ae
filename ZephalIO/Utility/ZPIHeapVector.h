#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

/// A vector of plain values whose storage, one malloc(3) block, can be given away: bytes collected
/// in it become a ZPKMutableData without a copy. It grows by realloc(3), which moves the pages of a
/// long block instead of copying them, and does not initialise bytes that will be overwritten. Not
/// thread-safe. If memory cannot be allocated, it throws std::bad_alloc and leaves the vector
/// unchanged.
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

  /// Appends copies of `count` values, which must not lie in the vector itself.
  void append(const T* values, size_t count) {
    if (count == 0) return;
    std::memcpy(extend(count), values, count * sizeof(T));
  }

  /// Appends `count` uninitialised values and returns a pointer to the first of them for the caller
  /// to set; valid until the next addition.
  T* extend(size_t count) {
    reserve(count);
    T* const added = _values + _size;
    _size += count;
    return added;
  }

  /// Makes room for `count` more values, so that appending them cannot fail.
  void reserve(size_t count) {
    if (count > _capacity - _size) grow(count);
  }

  /// Drops all values after the first `size`, if there are any, and keeps their memory.
  void truncate(size_t size) { _size = std::min(_size, size); }

  /// Exchanges the contents of two vectors without copying them.
  void swap(ZPIHeapVector& other) noexcept {
    std::swap(_values, other._values);
    std::swap(_size, other._size);
    std::swap(_capacity, other._capacity);
  }

  /// Returns the storage, which the caller frees with free(3), and leaves the vector empty. Null if
  /// nothing was appended.
  T* release() noexcept {
    _size = 0;
    _capacity = 0;
    return std::exchange(_values, nullptr);
  }

 private:
  // The first append allocates room for a short response of a device.
  static constexpr size_t kSmallestCapacity = 32;
  static constexpr size_t kLargestCapacity = std::numeric_limits<ptrdiff_t>::max() / sizeof(T);

  // Doubles, so that an append takes amortised constant time.
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
