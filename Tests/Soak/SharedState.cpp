#include "Soak/SharedState.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace soak {

SharedState* mapSharedState() {
  void* const memory = ::mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  return new (memory) SharedState{};
}

}  // namespace soak
