#pragma once

#include <cstddef>
#include <cstdlib>

/// The one large block of memory that a thread keeps between its reads.
///
/// While a device talks without a pause, each read needs a block of about the same size, and
/// releases it before the next read. If malloc returns such a block to the system in between, every
/// page of it is faulted in and zeroed again.
///
/// A thread keeps a block only after a large read, and only until a read returns no bytes, is about
/// to wait without limit, or the thread ends. So a thread that waits in vain keeps none, nor does a
/// thread that releases what others have read. A block may be taken on one thread and released on a
/// different one: each thread has a spare block of its own, and there is no lock.
class ZPISpareBlock {
 public:
  struct Room {
    void* block;  // from malloc(3); null if memory cannot be allocated
    size_t size;  // at least the size that was asked for
  };

  /// Smaller blocks are never kept. A read that finds nothing waiting takes 65,536 bytes, for which
  /// malloc is fast, so only a read that finds more than that keeps its block.
  static constexpr size_t kSmallest = 65537;
  /// Larger blocks are not kept either: this is what each thread may cost.
  static constexpr size_t kLargest = 1024 * 1024;

  /// To be called before the thread takes memory for a read of `size` bytes. If they are many, it
  /// keeps a block that it releases from now on.
  static void prepareRead(size_t size) {
    if (size >= kSmallest) startKeeping();
  }
  /// Memory from malloc(3), or the kept block.
  static Room take(size_t size) {
    return size < kSmallest ? Room{std::malloc(size), size} : takeLarge(size);
  }
  /// Frees a malloc(3) block of at least `size` bytes, or keeps it. The block may be null.
  static void release(void* block, size_t size) {
    if (size < kSmallest || size > kLargest) return std::free(block);
    releaseLarge(block, size);
  }
  /// Frees the block that the calling thread keeps. It keeps none until the next large read.
  static void drop();

 private:
  static void startKeeping();
  static Room takeLarge(size_t size);
  static void releaseLarge(void* block, size_t size);
};
