// Makes thread calls of the code under test behave differently, on the thread that asks for it. The
// calls are intercepted when the tests are linked (see Tests/CMakeLists.txt).
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

namespace support {

/// While it lives, the calling thread cannot start a thread: EAGAIN.
class RefusedThreads {
 public:
  RefusedThreads();
  RefusedThreads(const RefusedThreads&) = delete;
  RefusedThreads& operator=(const RefusedThreads&) = delete;
  ~RefusedThreads();
};

/// While it lives, `wait` replaces the calling thread's waits on a condition and provides their
/// result. As in a real wait, the mutex is free while `wait` runs.
class ReplacedWaits {
 public:
  explicit ReplacedWaits(std::function<int()> wait);
  ReplacedWaits(const ReplacedWaits&) = delete;
  ReplacedWaits& operator=(const ReplacedWaits&) = delete;
  ~ReplacedWaits();
};

/// How many waits on a condition without a limit have begun, on all threads. After a wait is
/// counted, a thread that gets its mutex knows that the waiter sleeps.
size_t endlessWaits();

/// The same for waits with a limit.
size_t limitedWaits();

}  // namespace support
