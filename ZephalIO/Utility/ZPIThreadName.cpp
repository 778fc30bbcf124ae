#include "Utility/ZPIThreadName.h"

#include <pthread.h>

#include <string>

namespace {

// What Linux takes, the terminating zero aside; no system takes less.
constexpr size_t kShortestLimit = 15;

// The two forms of the call: most systems name any thread, some the calling one alone.
[[maybe_unused]] bool nameWith(int (*setName)(pthread_t, const char*), const char* name) {
  return setName(pthread_self(), name) == 0;
}
[[maybe_unused]] bool nameWith(int (*setName)(const char*), const char* name) {
  return setName(name) == 0;
}

}  // namespace

void ZPINameThisThread(const char* name) {
  if (nameWith(pthread_setname_np, name)) return;
  nameWith(pthread_setname_np, std::string(name).substr(0, kShortestLimit).c_str());
}
