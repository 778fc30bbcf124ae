#include "Utility/ZPIProcessID.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace {

using Number = std::atomic<pid_t>;

// Whether a forked child will find zeros in `page`. An emulator may accept all advice, even what
// does not exist, and do nothing.
bool isZeroedInChildren(void* page, size_t size) {
#ifdef MADV_WIPEONFORK
  constexpr int kUnknownAdvice = -1;
  return ::madvise(page, size, kUnknownAdvice) != 0 && ::madvise(page, size, MADV_WIPEONFORK) == 0;
#else
  return false;
#endif
}

// Null if the system has no such memory.
Number* makeNumberZeroedInChildren() noexcept {
  const auto size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  void* const page =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  if (isZeroedInChildren(page, size)) return new (page) Number(0);
  ::munmap(page, size);
  return nullptr;
}

// Made when the library is loaded. If it were made on first use, a thread could be forked in the
// middle of that, and the child would wait for it for good.
Number* const known = makeNumberZeroedInChildren();

}  // namespace

pid_t ZPIProcessID() {
  if (known == nullptr) return ::getpid();
  const pid_t number = known->load(std::memory_order_relaxed);
  if (number != 0) return number;
  const pid_t asked = ::getpid();
  known->store(asked, std::memory_order_relaxed);
  return asked;
}
