// Threads that run a callback, and mutexes and conditions with default attributes (pthreads(7)).
//
// None of these reports a failure.
#pragma once

#include <pthread.h>

#include <functional>

/// Starts a joinable thread with the default stack that runs `block`. The caller joins or detaches
/// it. The thread owns `block`, and what it captured, until it ends, whichever way it ends: by
/// returning, by pthread_exit or by being cancelled.
///
/// If the system cannot start a thread, `*thread` becomes zero (see isThread), and `block` is
/// released without being run.
void newThreadWithBlock(pthread_t* thread, std::function<void()> block);

/// Whether a handle that was initialised to zero, pthread_t(), names a thread.
inline bool isThread(pthread_t thread) { return pthread_equal(thread, pthread_t()) == 0; }

extern "C" {

/// The start routine of a thread: runs `block`, a heap copy of a std::function<void()> that the
/// thread takes over. Returns null.
void* block_start__(void* block);

/// Releases such a copy.
void block_dispose(void* block);

}  // extern "C"

/// Initialises a mutex that is not recursive and a condition that uses the wall clock.
void buildConditionObjects(pthread_mutex_t* mutex, pthread_cond_t* condition);
void destroyConditionObjects(pthread_mutex_t* mutex, pthread_cond_t* condition);

/// Initialises a mutex that is not recursive. Nothing in the library calls these two.
void buildMutexObjects(pthread_mutex_t* mutex);
void destroyMutexObjects(pthread_mutex_t* mutex);

/// Holds a mutex during a scope, however the thread leaves it: a wait on a condition can end in a
/// cancellation.
class ZPIMutexHold {
 public:
  explicit ZPIMutexHold(pthread_mutex_t* mutex) : _mutex(mutex) { pthread_mutex_lock(_mutex); }
  ZPIMutexHold(const ZPIMutexHold&) = delete;
  ZPIMutexHold& operator=(const ZPIMutexHold&) = delete;
  ~ZPIMutexHold() { pthread_mutex_unlock(_mutex); }

 private:
  pthread_mutex_t* const _mutex;
};

/// Runs `block` on a new detached thread and waits for its result for up to `timeout` seconds, or
/// without limit for ZEPHAL_COMMUNICATION_TIME_FOREVER. If `block` returns true, the thread then
/// runs its ZPIEventLoop, to which `block` may attach work, until the loop is stopped or has
/// nothing left to wait for; otherwise the thread ends.
///
/// True if `block` returned true in time. False if it returned false, if the thread could not be
/// started, and when the timeout expires. In the last case `block` continues, and if it then
/// returns true, so does the thread.
///
/// Nothing in the library calls this function.
bool runBlockOnNewThreadWithRunLoop(std::function<bool()> block, double timeout);
