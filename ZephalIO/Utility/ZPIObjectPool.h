#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

/// Creates small shared objects, some of which share a block of memory that is freed with the last
/// of them. If many are created and released one after another, few of them go to malloc(3).
///
/// An object that outlives the others keeps the whole block, which is why blocks are small. The
/// pool is for one thread. Its objects may be released on any thread, and after the pool is gone.
class ZPIObjectPool {
 public:
  /// The size of a block: about eight numbers.
  static constexpr size_t kBlockSize = 512;

  ZPIObjectPool() = default;
  ZPIObjectPool(const ZPIObjectPool&) = delete;
  ZPIObjectPool& operator=(const ZPIObjectPool&) = delete;
  ~ZPIObjectPool() { giveUpBlock(); }

  /// Creates an object, like std::make_shared. Throws std::bad_alloc if memory cannot be allocated.
  template <class T, class... Arguments>
  std::shared_ptr<const T> make(Arguments&&... arguments) {
    return std::allocate_shared<const T>(Allocator<T>(this), std::forward<Arguments>(arguments)...);
  }

  /// The same for a class that only its own functions create, and that has this pool as a friend.
  template <class T, class... Arguments>
  std::shared_ptr<const T> makeWithKey(Arguments&&... arguments) {
    return make<T>(typename T::Key(), std::forward<Arguments>(arguments)...);
  }

 private:
  // Of the objects; those of the library need no more.
  static constexpr size_t kAlignment = std::max(alignof(uint64_t), alignof(void*));

  // Begins a block.
  struct alignas(kAlignment) Block {
    std::atomic<size_t> users;
  };

  // The place of a pointer to the block, in front of each object.
  static Block** ownerOf(void* object) { return static_cast<Block**>(object) - 1; }

  template <class T>
  class Allocator {
   public:
    using value_type = T;

    explicit Allocator(ZPIObjectPool* pool) : _pool(pool) {}
    template <class U>
    Allocator(const Allocator<U>& other) : _pool(other.pool()) {}

    T* allocate(size_t count) {
      static_assert(alignof(T) <= kAlignment);
      return static_cast<T*>(_pool->allocate(count * sizeof(T)));
    }
    void deallocate(T* object, size_t /*count*/) { leave(*ownerOf(object), 1); }

    ZPIObjectPool* pool() const { return _pool; }
    friend bool operator==(const Allocator&, const Allocator&) { return true; }

   private:
    ZPIObjectPool* _pool;  // only until the object is created
  };

  void* allocate(size_t size) {
    size = kAlignment + (size + kAlignment - 1) / kAlignment * kAlignment;
    if (size > _room) startBlock(size);
    void* const object = _next + kAlignment;
    *ownerOf(object) = _block;
    _next += size;
    _room -= size;
    ++_count;
    return object;
  }

  void startBlock(size_t size);
  void giveUpBlock();
  static void leave(Block* block, size_t count);

  Block* _block = nullptr;
  std::byte* _next = nullptr;
  size_t _room = 0;
  size_t _count = 0;  // of the objects in the block, whether they still exist or not
};
