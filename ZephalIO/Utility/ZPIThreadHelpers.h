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
/// A thread that the system cannot start leaves zero in `*thread` (see isThread), and `block` is
/// released unrun.
void newThreadWithBlock(pthread_t* thread, std::function<void()> block);

/// Whether a handle that began as zero, pthread_t(), names a thread.
inline bool isThread(pthread_t thread) { return pthread_equal(thread, pthread_t()) == 0; }

extern "C" {

/// The first code of a thread: runs `block`, a heap copy of a std::function<void()> that the thread
/// takes over. Returns null.
void* block_start__(void* block);

/// Releases such a copy; nothing else.
void block_dispose(void* block);

}  // extern "C"

/// Makes a mutex that is not recursive and a condition on the wall clock.
void buildConditionObjects(pthread_mutex_t* mutex, pthread_cond_t* condition);
void destroyConditionObjects(pthread_mutex_t* mutex, pthread_cond_t* condition);

/// Makes a mutex that is not recursive. Nothing in the library calls these two.
void buildMutexObjects(pthread_mutex_t* mutex);
void destroyMutexObjects(pthread_mutex_t* mutex);

/// Holds a mutex for the length of a scope, however the thread leaves it: a wait on a condition can
/// end in a cancellation.
class ZPIMutexHold {
 public:
  explicit ZPIMutexHold(pthread_mutex_t* mutex) : _mutex(mutex) { pthread_mutex_lock(_mutex); }
  ZPIMutexHold(const ZPIMutexHold&) = delete;
  ZPIMutexHold& operator=(const ZPIMutexHold&) = delete;
  ~ZPIMutexHold() { pthread_mutex_unlock(_mutex); }

 private:
  pthread_mutex_t* const _mutex;
};

/// Runs `block` on a new detached thread and waits for it for at most `timeout` seconds, without
/// limit for ZEPHAL_COMMUNICATION_TIME_FOREVER. If `block` returns true, the thread goes on in its
/// ZPIEventLoop, to which `block` may attach work, until that is stopped or has nothing left to
/// wait for; otherwise the thread ends.
///
/// True if `block` returned true in time. Once the time is up the answer is false, although `block`
/// goes on, and so does the thread if it then returns true.
///
/// Nothing in the library calls it.
bool runBlockOnNewThreadWithRunLoop(std::function<bool()> block, double timeout);
