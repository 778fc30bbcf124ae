#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>

namespace support {

/// During its lifetime, all threads of the test program live by a time that the test sets: it is
/// what they read from a clock, and it decides when their waits with a limit end. Only one may
/// exist at a time.
///
/// The clock starts at the real time, in whole microseconds, and stands still. A wait with a limit
/// ends when what it waits for happens, as always, or when the test moves the clock past its limit.
/// Until then the waiting thread looks at the clock every millisecond; a wait on a condition then
/// returns as if woken spuriously. Waits without a limit are not affected, and neither are waits
/// that a shared library makes by itself, such as those of a std::future.
///
/// The calls are intercepted when the tests are linked (see Tests/CMakeLists.txt).
class TestClock {
 public:
  TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;
  /// Waits that are still under way end, or continue in real time: end the threads of a test first.
  ~TestClock();

  void advance(std::chrono::nanoseconds time);
  /// Sets only the wall clock, as a user of the machine may.
  void setWallTime(std::chrono::system_clock::time_point time);

  /// How far the clock has moved.
  std::chrono::nanoseconds passed() const;
  /// How many waits with a limit are under way. A wait on a condition is not counted while its
  /// thread looks at the clock.
  size_t waits() const;
};

/// While it lives, no wait by the clock takes any time: one that does not end immediately moves the
/// clock to its limit. A thread that does nothing but wait then runs without a pause.
class SkippedWaits {
 public:
  explicit SkippedWaits(TestClock& clock);
  SkippedWaits(const SkippedWaits&) = delete;
  SkippedWaits& operator=(const SkippedWaits&) = delete;
  ~SkippedWaits();
};

/// While it lives, the calling thread has the real time: for simulated devices, and for what a test
/// itself waits for.
class RealTime {
 public:
  RealTime();
  RealTime(const RealTime&) = delete;
  RealTime& operator=(const RealTime&) = delete;
  ~RealTime();

 private:
  const bool _before;
};

// The calls that wait, by the test's clock if there is one: for code that intercepts them for
// another purpose and then passes them on.
int selectByClock(int count, fd_set* readable, fd_set* writable, fd_set* odd, timeval* time);
int pollByClock(pollfd* entries, nfds_t count, int milliseconds);
int usleepByClock(useconds_t time);
int timedWaitByClock(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline);

}  // namespace support
