#include "Hostile/Meter.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else  // then floods are handled, but nothing is counted
#define RUNNING_ON_VALGRIND 0
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name)
#endif

namespace {

std::atomic<long> bytesInUse{0};
std::atomic<long> peak{0};

[[maybe_unused]] void add(const void* block) {
  const long now = bytesInUse += static_cast<long>(::malloc_usable_size(const_cast<void*>(block)));
  for (long before = peak; before < now && !peak.compare_exchange_weak(before, now);) {
  }
}

[[maybe_unused]] void remove(const void* block) {
  bytesInUse -= static_cast<long>(::malloc_usable_size(const_cast<void*>(block)));
}

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// All memory of the program and of its libraries passes through these, and on to the C library's
// own, which have these names there.
extern "C" {

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

void* malloc(size_t size) {
  void* const block = __libc_malloc(size);
  add(block);
  return block;
}

void* calloc(size_t count, size_t size) {
  void* const block = __libc_calloc(count, size);
  add(block);
  return block;
}

void* realloc(void* block, size_t size) {
  remove(block);
  void* const moved = __libc_realloc(block, size);
  add(moved == nullptr && size > 0 ? block : moved);
  return moved;
}

void free(void* block) {
  remove(block);
  __libc_free(block);
}

}  // extern "C"

#endif

bool Meter::isCounting() { return RUNNING_ON_VALGRIND != 0; }

size_t Meter::heapPeakOf(const std::string& name, const std::function<void()>& work) {
  const long before = bytesInUse;
  peak = before;
  CALLGRIND_ZERO_STATS;
  work();
  CALLGRIND_DUMP_STATS_AT(name.c_str());
  return static_cast<size_t>(peak - before);
}
