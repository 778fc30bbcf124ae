#include "Utility/ZPISpareBlock.h"

#include <utility>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace {

// A kept block that is this many times as large as needed stays where it is: data in it would be
// copied to a smaller one.
constexpr size_t kTooLargeFactor = 8;

// Has no destructor, so it can be used until the very end of its thread.
struct Spare {
  void* block = nullptr;
  size_t size = 0;
  bool isWanted = false;  // whether there was a large read since the last drop
  bool isThreadEnding = false;
};
constinit thread_local Spare spare;

// Frees the block when the thread ends. Other objects of the thread may release data even later;
// their blocks are freed immediately.
struct AtThreadEnd {
  ~AtThreadEnd() {
    ZPISpareBlock::drop();
    spare.isThreadEnding = true;
  }
};

// While a block is kept, AddressSanitizer takes every access to it for an error, as it would if the
// block had been freed.
void forbidAccess([[maybe_unused]] const Spare& kept) {
#ifdef __SANITIZE_ADDRESS__
  __asan_poison_memory_region(kept.block, kept.size);
#endif
}

void allowAccess([[maybe_unused]] const Spare& kept) {
#ifdef __SANITIZE_ADDRESS__
  __asan_unpoison_memory_region(kept.block, kept.size);
#endif
}

}  // namespace

void ZPISpareBlock::startKeeping() { spare.isWanted = !spare.isThreadEnding; }

ZPISpareBlock::Room ZPISpareBlock::takeLarge(size_t size) {
  if (spare.size < size || spare.size / kTooLargeFactor > size) return {std::malloc(size), size};
  allowAccess(spare);
  return {std::exchange(spare.block, nullptr), std::exchange(spare.size, 0)};
}

void ZPISpareBlock::releaseLarge(void* block, size_t size) {
  if (!spare.isWanted || size <= spare.size) return std::free(block);
  static thread_local const AtThreadEnd atThreadEnd;
  allowAccess(spare);
  std::free(std::exchange(spare.block, block));
  spare.size = size;
  forbidAccess(spare);
}

void ZPISpareBlock::drop() {
  allowAccess(spare);
  std::free(std::exchange(spare.block, nullptr));
  spare.size = 0;
  spare.isWanted = false;
}
