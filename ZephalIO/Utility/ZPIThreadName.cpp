#include "Utility/ZPIThreadName.h"

#include <pthread.h>

#include <array>

#include "Utility/ZPIText.h"

namespace {

// The longest name that Linux accepts, without the terminating zero; no system has a lower limit.
constexpr size_t kShortestLimit = 15;
// More than any system accepts. A copy on the heap could fail on a thread that nobody watches.
constexpr size_t kLongestLimit = 64;

// The two forms of the call: most systems can name any thread, some only the calling one.
[[maybe_unused]] bool nameWith(int (*setName)(pthread_t, const char*), const char* name) {
  return setName(pthread_self(), name) == 0;
}
[[maybe_unused]] bool nameWith(int (*setName)(const char*), const char* name) {
  return setName(name) == 0;
}

}  // namespace

void ZPINameThisThread(std::string_view name) {
  std::array<char, kLongestLimit> text{};
  name.copy(text.data(), text.size() - 1);
  if (nameWith(pthread_setname_np, text.data()) || name.size() <= kShortestLimit) return;
  size_t end = kShortestLimit;
  while (end > 0 && ZPIIsContinuationByte(name[end])) --end;  // do not split a UTF-8 sequence
  text[end] = '\0';
  nameWith(pthread_setname_np, text.data());
}
