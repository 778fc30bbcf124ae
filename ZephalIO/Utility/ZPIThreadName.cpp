#include "Utility/ZPIThreadName.h"

#include <pthread.h>

#include "Utility/ZPIText.h"

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

void ZPINameThisThread(const std::string& name) {
  if (nameWith(pthread_setname_np, name.c_str()) || name.size() <= kShortestLimit) return;
  size_t end = kShortestLimit;
  while (end > 0 && ZPIIsContinuationByte(name[end])) --end;  // not within a UTF-8 sequence
  nameWith(pthread_setname_np, name.substr(0, end).c_str());
}
