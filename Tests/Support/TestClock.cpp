#include "Support/TestClock.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace support {

// The linker's names for the calls themselves.
extern "C" {
int __real_clock_gettime(clockid_t, timespec*);
int __real_nanosleep(const timespec*, timespec*);
int __real_usleep(useconds_t);
int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __real_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
}

namespace {

// All times in nanoseconds.
constexpr int64_t kSecond = 1000000000;
// Later than any process runs, but still a valid count of nanoseconds.
constexpr int64_t kLastSecond = 4000000000;
// How long a thread waits before it looks at the test's clock again.
constexpr int64_t kLook = 1000000;

std::atomic<size_t> clockCount{0};
std::atomic<size_t> currentClock{0};  // the number of the clock; 0: there is none
std::atomic<int64_t> startOfWallClock{0};
std::atomic<int64_t> startOfSteadyClock{0};
std::atomic<int64_t> passedTime{0};
std::atomic<bool> areWaitsSkipped{false};
std::atomic<size_t> waitCount{0};
thread_local bool hasRealTime = false;

bool isClockSet() { return !hasRealTime && currentClock != 0; }

int64_t toNanoseconds(const timespec& time) {
  return std::min(int64_t{time.tv_sec}, kLastSecond) * kSecond + time.tv_nsec;
}

timespec toTimespec(int64_t time) {
  return {static_cast<time_t>(time / kSecond), static_cast<long>(time % kSecond)};
}

timeval toTimeval(int64_t time) {
  return {static_cast<time_t>(time / kSecond), static_cast<suseconds_t>(time % kSecond / 1000)};
}

int64_t realTimeOf(clockid_t clock) {
  timespec time{};
  __real_clock_gettime(clock, &time);
  return toNanoseconds(time);
}

int64_t timeOf(clockid_t clock) {
  if (!isClockSet()) return realTimeOf(clock);
  if (clock == CLOCK_REALTIME) return startOfWallClock + passedTime;
  if (clock == CLOCK_MONOTONIC) return startOfSteadyClock + passedTime;
  return realTimeOf(clock);  // a processor's time
}

// Some calls report nothing finer; whole microseconds keep a test's sums exact.
int64_t wholeMicroseconds(int64_t time) { return time - time % 1000; }

void advanceTo(int64_t time) {
  int64_t current = passedTime;
  while (current < time && !passedTime.compare_exchange_weak(current, time)) {
  }
}

class CountedWait {
 public:
  CountedWait() { ++waitCount; }
  CountedWait(const CountedWait&) = delete;
  CountedWait& operator=(const CountedWait&) = delete;
  ~CountedWait() { --waitCount; }
};

struct Look {
  int result;
  bool isLast;  // the time of the whole wait is up
};

// One look of a wait: `wait` waits for this long in real time, and returns `timedOut` if nothing
// happened.
template <class Wait, class TimeLeft>
Look look(Wait wait, int timedOut, TimeLeft timeLeft) {
  const bool isSkipped = areWaitsSkipped;
  const bool isLast = isSkipped || timeLeft() <= 0;
  const int result = wait(isLast ? 0 : kLook);
  if (isSkipped && result == timedOut) {
    while (isClockSet() && timeLeft() > 0) advanceTo(passedTime + timeLeft());
  }
  return {result, isLast};
}

// A wait for something that, once it is there, stays there.
template <class Wait>
int waitByClock(Wait wait, int timedOut, int64_t time) {
  const size_t clock = currentClock;
  const int64_t end = passedTime + time;
  const CountedWait counted;  // from here on a test may move the clock
  for (;;) {
    const auto [result, isLast] = look(wait, timedOut, [end] { return end - passedTime; });
    if (result != timedOut || isLast || clock != currentClock) return result;
  }
}

int sleepByClock(int64_t time) {
  const auto sleep = [](int64_t part) {
    const timespec rest = toTimespec(part);
    return part == 0 ? ::sched_yield() : __real_nanosleep(&rest, nullptr);
  };
  return waitByClock(sleep, 0, time);
}

// A wait on a condition, which is not continued after a look: while nobody waited, what the caller
// waits for may have happened and its signal been missed.
template <class Wait>
int waitOnConditionByClock(Wait wait, clockid_t clock, const timespec& deadline) {
  const CountedWait counted;
  const int64_t end = toNanoseconds(deadline);
  const auto [result, isLast] = look(wait, ETIMEDOUT, [=] { return end - timeOf(clock); });
  return result == ETIMEDOUT && !isLast ? 0 : result;
}

}  // namespace

TestClock::TestClock() {
  startOfWallClock = wholeMicroseconds(realTimeOf(CLOCK_REALTIME));
  startOfSteadyClock = wholeMicroseconds(realTimeOf(CLOCK_MONOTONIC));
  passedTime = 0;
  currentClock = ++clockCount;
}

TestClock::~TestClock() { currentClock = 0; }

void TestClock::advance(std::chrono::nanoseconds time) { passedTime += time.count(); }

void TestClock::setWallTime(std::chrono::system_clock::time_point time) {
  startOfWallClock = std::chrono::nanoseconds(time.time_since_epoch()).count() - passedTime;
}

std::chrono::nanoseconds TestClock::passed() const { return std::chrono::nanoseconds(passedTime); }

size_t TestClock::waits() const { return waitCount; }

SkippedWaits::SkippedWaits(TestClock& /*clock*/) { areWaitsSkipped = true; }

SkippedWaits::~SkippedWaits() { areWaitsSkipped = false; }

RealTime::RealTime() : _before(hasRealTime) { hasRealTime = true; }

RealTime::~RealTime() { hasRealTime = _before; }

int selectByClock(int count, fd_set* readable, fd_set* writable, fd_set* odd, timeval* time) {
  if (!isClockSet() || time == nullptr) return __real_select(count, readable, writable, odd, time);
  fd_set* const sets[] = {readable, writable, odd};
  fd_set wanted[3];
  for (int i = 0; i < 3; ++i) {
    if (sets[i] != nullptr) wanted[i] = *sets[i];
  }
  const auto wait = [&](int64_t part) {
    for (int i = 0; i < 3; ++i) {
      if (sets[i] != nullptr) *sets[i] = wanted[i];
    }
    timeval rest = toTimeval(part);
    return __real_select(count, readable, writable, odd, &rest);
  };
  const int64_t whole = toNanoseconds({time->tv_sec, time->tv_usec * 1000});
  const int64_t end = passedTime + whole;
  const int result = waitByClock(wait, 0, whole);
  *time = toTimeval(std::max<int64_t>(0, end - passedTime));  // as Linux does
  return result;
}

// ppoll is not intercepted, as poll may be.
int pollByClock(pollfd* entries, nfds_t count, int milliseconds) {
  const auto wait = [&](int64_t part) {
    const timespec rest = toTimespec(part);
    return ::ppoll(entries, count, &rest, nullptr);
  };
  if (milliseconds < 0) return ::ppoll(entries, count, nullptr, nullptr);
  const int64_t time = int64_t{milliseconds} * 1000000;
  return isClockSet() ? waitByClock(wait, 0, time) : wait(time);
}

int usleepByClock(useconds_t time) {
  if (!isClockSet()) return __real_usleep(time);
  return sleepByClock(int64_t{time} * 1000);
}

int timedWaitByClock(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  if (!isClockSet()) return __real_pthread_cond_timedwait(condition, mutex, deadline);
  const auto wait = [&](int64_t part) {
    const timespec end = toTimespec(realTimeOf(CLOCK_REALTIME) + part);
    return __real_pthread_cond_timedwait(condition, mutex, &end);
  };
  return waitOnConditionByClock(wait, CLOCK_REALTIME, *deadline);
}

// The clocks of the two standard libraries have their mangled names.
#ifdef _LIBCPP_VERSION
#define STANDARD_CLOCKS "_ZNSt3__16chrono"
#else
#define STANDARD_CLOCKS "_ZNSt6chrono3_V2"
#endif

template <class Clock>
typename Clock::time_point timePointOf(clockid_t clock) {
  const std::chrono::nanoseconds time(timeOf(clock));
  return typename Clock::time_point(std::chrono::duration_cast<typename Clock::duration>(time));
}

// The functions to which the linker directs the calls.
std::chrono::system_clock::time_point wallTime() noexcept
    asm("__wrap_" STANDARD_CLOCKS "12system_clock3nowEv");
std::chrono::steady_clock::time_point steadyTime() noexcept
    asm("__wrap_" STANDARD_CLOCKS "12steady_clock3nowEv");

std::chrono::system_clock::time_point wallTime() noexcept {
  return timePointOf<std::chrono::system_clock>(CLOCK_REALTIME);
}

std::chrono::steady_clock::time_point steadyTime() noexcept {
  return timePointOf<std::chrono::steady_clock>(CLOCK_MONOTONIC);
}

extern "C" {
int __wrap_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __wrap_nanosleep(const timespec* time, timespec* rest);
}

#ifdef _LIBCPP_VERSION
// libc++ waits and sleeps in its shared library, which the linker does not reach. The first is a
// member of std::condition_variable, the second is std::this_thread::sleep_for.
using WallTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;
void waitUntil(std::condition_variable* condition, std::unique_lock<std::mutex>& lock,
               WallTime deadline) noexcept
    asm("__wrap__ZNSt3__118condition_variable15__do_timed_waitERNS_11unique_lockINS_5mutexEEENS_6"
        "chrono10time_pointINS5_12system_clockENS5_8durationIxNS_5ratioILl1ELl1000000000EEEEEEE");
void sleepFor(const std::chrono::nanoseconds& time) asm(
    "__wrap__ZNSt3__111this_thread9sleep_forERKNS_6chrono8durationIxNS_"
    "5ratioILl1ELl1000000000EEEEE");

void waitUntil(std::condition_variable* condition, std::unique_lock<std::mutex>& lock,
               WallTime deadline) noexcept {
  const timespec end = toTimespec(deadline.time_since_epoch().count());
  __wrap_pthread_cond_timedwait(condition->native_handle(), lock.mutex()->native_handle(), &end);
}

void sleepFor(const std::chrono::nanoseconds& time) {
  timespec rest = toTimespec(time.count());
  while (__wrap_nanosleep(&rest, &rest) == -1) {
  }
}
#endif

extern "C" {

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  if (!isClockSet()) return __real_clock_gettime(clock, time);
  *time = toTimespec(timeOf(clock));
  return 0;
}

int __wrap_gettimeofday(timeval* time, void* /*zone*/) {
  *time = toTimeval(timeOf(CLOCK_REALTIME));
  return 0;
}

int __wrap_nanosleep(const timespec* time, timespec* rest) {
  if (!isClockSet()) return __real_nanosleep(time, rest);
  return sleepByClock(toNanoseconds(*time));
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* deadline) {
  if (!isClockSet()) return __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
  const auto wait = [&](int64_t part) {
    const timespec end = toTimespec(realTimeOf(clock) + part);
    return __real_pthread_cond_clockwait(condition, mutex, clock, &end);
  };
  return waitOnConditionByClock(wait, clock, *deadline);
}

}  // extern "C"

}  // namespace support
