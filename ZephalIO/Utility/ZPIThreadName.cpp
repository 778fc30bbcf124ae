#include "Utility/ZPIThreadName.h"

#include <pthread.h>

#include "Utility/ZPIText.h"

namespace {

// The longest name that Linux accepts, without the terminating zero; no system has a lower limit.
constexpr size_t kShortestLimit = 15;

// The two forms of the call: most systems can name any thread, some only the calling one.
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
  while (end > 0 && ZPIIsContinuationByte(name[end])) --end;  // do not split a UTF-8 sequence
  nameWith(pthread_setname_np, name.substr(0, end).c_str());
}
