// How a call of the code under test is recorded, and made to fail. For SystemCalls, and for
// programs that intercept further calls.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "Support/CallJitter.h"
#include "Support/SystemCalls.h"

namespace support::interception {

/// What happens to a call.
enum class Deed { kAnswer, kAnswerAfter, kShorten, kAct };

/// Which calls something happens to, and what.
struct Plan {
  std::string call;
  size_t skip;
  size_t times;
  Deed deed;
  int64_t value = 0;
  int error = 0;
  std::function<void()> action;
};

/// A call that has been recorded.
struct Entry {
  size_t generation;
  size_t index;
  std::optional<Plan> plan;
};

/// Whether the calling thread's calls are recorded now.
bool isWatched();
Entry enter(const SystemCall& call);
void leave(const Entry& entry, int64_t result, int error);

/// A call with nothing but a name and a descriptor.
SystemCall plain(const char* name, int descriptor, int64_t size = 0);
/// The same, with arguments in its text.
SystemCall detailed(const char* name, const std::string& detail, int descriptor, int64_t size = 0);

/// `describe` returns the call as it is recorded; `real` makes it, with the size that it may use.
/// The errno of the caller is passed on to the call, and the errno of the call to the caller.
template <class Describe, class Real>
auto interceptWatched(Describe describe, int64_t size, Real real) -> decltype(real(size)) {
  using Result = decltype(real(size));
  const int errnoBefore = errno;
  Entry entry;
  {
    const CallsWatched unwatched(false);
    entry = enter(describe());
    if (entry.plan.has_value() && entry.plan->deed == Deed::kAct) entry.plan->action();
  }
  errno = errnoBefore;
  Result result;
  if (entry.plan.has_value() && entry.plan->deed == Deed::kAnswer) {
    result = static_cast<Result>(entry.plan->value);
    if (entry.plan->error != 0) errno = entry.plan->error;
  } else if (entry.plan.has_value() && entry.plan->deed == Deed::kShorten) {
    result = real(std::min(size, entry.plan->value));
  } else {
    result = real(size);
  }
  if (entry.plan.has_value() && entry.plan->deed == Deed::kAnswerAfter) {
    result = static_cast<Result>(entry.plan->value);
    errno = entry.plan->error;
  }
  const int errnoAfter = errno;
  {
    const CallsWatched unwatched(false);
    leave(entry, static_cast<int64_t>(result), result == -1 ? errnoAfter : 0);
    entry.plan.reset();
  }
  errno = errnoAfter;
  return result;
}

/// The same if the thread is watched; otherwise nothing but the call.
template <class Describe, class Real>
auto intercept(Describe describe, int64_t size, Real real) -> decltype(real(size)) {
  giveWayAtRandom();
  const auto result = isWatched() ? interceptWatched(describe, size, real) : real(size);
  giveWayAtRandom();
  return result;
}

}  // namespace support::interception
