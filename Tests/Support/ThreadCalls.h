// Thread calls of the code under test that go another way, on the thread that asks for it. They are
// intercepted when the tests are linked (see Tests/CMakeLists.txt).
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

namespace support {

/// While it lives, the system starts no thread for the calling thread: EAGAIN.
class RefusedThreads {
 public:
  RefusedThreads();
  RefusedThreads(const RefusedThreads&) = delete;
  RefusedThreads& operator=(const RefusedThreads&) = delete;
  ~RefusedThreads();
};

/// While it lives, `wait` stands in for the calling thread's waits on a condition and gives their
/// result. As in a real wait, the mutex is free while `wait` runs.
class ReplacedWaits {
 public:
  explicit ReplacedWaits(std::function<int()> wait);
  ReplacedWaits(const ReplacedWaits&) = delete;
  ReplacedWaits& operator=(const ReplacedWaits&) = delete;
  ~ReplacedWaits();
};

/// How many waits on a condition without a limit have begun, on all threads. Whoever holds the
/// mutex of such a wait after it was counted knows that the waiter sleeps.
size_t endlessWaits();

/// Likewise of the waits with a limit.
size_t limitedWaits();

}  // namespace support
