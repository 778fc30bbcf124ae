#include "PeakMemory.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> allocated{0};
std::atomic<size_t> highest{0};

void* allocate(size_t size) {
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  const size_t now = allocated += ::malloc_usable_size(block);
  highest = std::max(highest.load(), now);
  return block;
}

void release(void* block) noexcept {
  if (block != nullptr) allocated -= ::malloc_usable_size(block);
  std::free(block);
}

}  // namespace

// Every form of operator new that a later delete cannot tell from the others.
void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, size_t) noexcept { release(block); }
void operator delete[](void* block, size_t) noexcept { release(block); }

PeakMemory::PeakMemory() : _start(allocated) { highest = _start; }

size_t PeakMemory::peak() const { return highest - _start; }
