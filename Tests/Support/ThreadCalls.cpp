#include "Support/ThreadCalls.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "Support/SystemCalls.h"
#include "Support/TestClock.h"

namespace support {

// The linker's names for the calls themselves.
extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);
}

namespace {

thread_local bool refusesThreads = false;
thread_local std::function<int()> replacedWait;
std::atomic<size_t> endlessWaitCount{0};
std::atomic<size_t> limitedWaitCount{0};

int waitReplaced(pthread_mutex_t* mutex) {
  // The waits within `wait` itself are real.
  std::function<int()> wait = std::exchange(replacedWait, nullptr);
  pthread_mutex_unlock(mutex);
  const int result = wait();
  pthread_mutex_lock(mutex);
  replacedWait = std::move(wait);
  return result;
}

}  // namespace

RefusedThreads::RefusedThreads() { refusesThreads = true; }
RefusedThreads::~RefusedThreads() { refusesThreads = false; }

ReplacedWaits::ReplacedWaits(std::function<int()> wait) { replacedWait = std::move(wait); }
ReplacedWaits::~ReplacedWaits() { replacedWait = nullptr; }

size_t endlessWaits() { return endlessWaitCount; }

size_t limitedWaits() { return limitedWaitCount; }

// The functions to which the linker directs the calls.
extern "C" {

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
  if (refusesThreads) return EAGAIN;
  if (const int error = countThread(); error != 0) return error;
  return __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  if (replacedWait) return waitReplaced(mutex);
  ++endlessWaitCount;
  return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
  if (replacedWait) return waitReplaced(mutex);
  ++limitedWaitCount;
  return timedWaitByClock(condition, mutex, deadline);
}

}  // extern "C"

}  // namespace support
