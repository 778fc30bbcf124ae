#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

/// The allocator of ZPIMakeSharedWithBytes: every block has `extra` additional bytes at its end.
template <class T>
class ZPITrailingBytesAllocator {
 public:
  using value_type = T;

  /// allocate stores the address of the extra bytes in `*trailing`, which must live until then.
  ZPITrailingBytesAllocator(size_t extra, uint8_t** trailing)
      : _extra(extra), _trailing(trailing) {}
  template <class U>
  explicit ZPITrailingBytesAllocator(const ZPITrailingBytesAllocator<U>& other)
      : _extra(other.extra()), _trailing(other.trailing()) {}

  T* allocate(size_t count) {
    const size_t size = count * sizeof(T);
    if (size + _extra < size) throw std::bad_alloc();
    auto* block = static_cast<uint8_t*>(::operator new(size + _extra));
    *_trailing = block + size;
    return reinterpret_cast<T*>(block);
  }
  void deallocate(T* block, size_t /*count*/) { ::operator delete(block); }

  size_t extra() const { return _extra; }
  uint8_t** trailing() const { return _trailing; }

  friend bool operator==(const ZPITrailingBytesAllocator&, const ZPITrailingBytesAllocator&) {
    return true;
  }

 private:
  size_t _extra;
  uint8_t** _trailing;
};

/// Creates an object from `arguments` together with `length` bytes of its own, in one block of
/// memory. The bytes begin at `*bytes`, are not initialised, and are freed with the object. Throws
/// std::bad_alloc if memory cannot be allocated.
template <class T, class... Arguments>
std::shared_ptr<T> ZPIMakeSharedWithBytes(size_t length, uint8_t** bytes, Arguments... arguments) {
  return std::allocate_shared<T>(ZPITrailingBytesAllocator<T>(length, bytes), arguments...);
}
