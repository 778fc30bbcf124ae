#include "Support/ThreadCalls.h"

#include <cerrno>
#include <utility>

// The linker's names for the calls themselves.
extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
}

namespace {

thread_local bool refusesThreads = false;
thread_local std::function<int()> replacedWait;

}  // namespace

RefusedThreads::RefusedThreads() { refusesThreads = true; }
RefusedThreads::~RefusedThreads() { refusesThreads = false; }

ReplacedWaits::ReplacedWaits(std::function<int()> wait) { replacedWait = std::move(wait); }
ReplacedWaits::~ReplacedWaits() { replacedWait = nullptr; }

// What the linker puts in the place of the calls.
extern "C" {

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
  if (refusesThreads) return EAGAIN;
  return __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
  if (!replacedWait) return __real_pthread_cond_timedwait(condition, mutex, deadline);
  pthread_mutex_unlock(mutex);
  const int result = replacedWait();
  pthread_mutex_lock(mutex);
  return result;
}

}  // extern "C"
