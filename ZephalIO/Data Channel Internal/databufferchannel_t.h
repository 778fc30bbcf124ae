#pragma once

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstddef>

#include "Utility/ZPIHeapVector.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPIWallClockDeadline.h"
#include "Utility/ZPKConstants.h"

/// Hands over a stream of plain values from one producer thread to one consumer thread. It keeps no
/// boundaries between the values of two sends and has no length limit. Either side closes it, one
/// time and for good; values that were not received by then never are.
///
/// There may be only one consumer: a signal wakes one waiter, and a second could sleep through the
/// close. The mutex is held during an append or the swap of two vectors, never while values are
/// copied out.
///
/// Only errno says why an operation ended.
template <class T>
class databufferchannel_t {
 public:
  using Vector = ZPIHeapVector<T>;

  databufferchannel_t() {
    pthread_mutex_init(&mutex, nullptr);
    pthread_cond_init(&condition, nullptr);
  }
  databufferchannel_t(const databufferchannel_t&) = delete;
  databufferchannel_t& operator=(const databufferchannel_t&) = delete;
  ~databufferchannel_t() {
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&condition);
  }

  /// Takes all queued values as soon as there are any, by swapping them with `output`. Waits for at
  /// most `timeout` seconds by the wall clock; ZEPHAL_COMMUNICATION_TIME_NOW does not wait, and
  /// ZEPHAL_COMMUNICATION_TIME_FOREVER waits without limit.
  ///
  /// - true, errno 0: `output` has the values;
  /// - false, ETIMEDOUT: nothing arrived in time, or the queue was closed during the wait. Values
  ///   that arrive in the instant in which the time is up stay for the next call;
  /// - false, ECANCELED: the queue was closed in the instant in which the wait ended by itself;
  /// - false, EINVAL: the timeout is negative and not FOREVER, and `output` is empty; or the
  ///   timeout is not a number;
  /// - false, any other errno: the wait failed;
  /// - false, errno unchanged: the queue was closed before the call.
  ///
  /// `output` is unchanged unless the result is true.
  bool TryReceive(double timeout, Vector& output) {
    if (isRefused(timeout, output)) {
      errno = EINVAL;
      return false;
    }
    int reason = 0;
    {
      const ZPIMutexHold hold(&mutex);
      if (isClosed()) return false;
      reason = waitForValues(timeout);
      if (reason == 0) output.swap(buffer);
    }
    errno = reason;
    return reason == 0;
  }

  /// Queues copies of `count` values and wakes the consumer. If `count` is 0 or the queue is
  /// closed, it queues nothing and leaves errno unchanged; otherwise errno is the result of waking
  /// the consumer. Throws std::bad_alloc if memory cannot be allocated.
  void Send(const T* values, size_t count) {
    if (count == 0) return;
    int result = 0;
    {
      const ZPIMutexHold hold(&mutex);
      if (isClosed()) return;
      buffer.append(values, count);
      result = pthread_cond_signal(&condition);
    }
    errno = result;
  }

  /// Closes the queue and wakes the consumer. Queued values can no longer be received.
  void Close() {
    const ZPIMutexHold hold(&mutex);
    closed.store(true, std::memory_order_release);
    pthread_cond_signal(&condition);
  }

  /// Any thread may ask, without a lock. A thread that gets true also sees everything that was done
  /// before the close.
  bool isClosed() const { return closed.load(std::memory_order_acquire); }

 private:
  static bool isRefused(double timeout, const Vector& output) {
    if (std::isnan(timeout)) return true;
    return timeout < 0.0 && timeout != ZEPHAL_COMMUNICATION_TIME_FOREVER && output.empty();
  }

  // 0 as soon as there are values, otherwise the reason why there are none. Call with `mutex` held.
  int waitForValues(double timeout) {
    const timespec deadline = ZPIWallClockDeadline(timeout);
    if (!buffer.empty()) return 0;
    int result = 0;
    while (result == 0 && timeout != ZEPHAL_COMMUNICATION_TIME_NOW && !isClosed()) {
      result = timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER
                   ? pthread_cond_wait(&condition, &mutex)
                   : pthread_cond_timedwait(&condition, &mutex, &deadline);
      if (result == 0 && !buffer.empty()) return 0;
    }
    if (result == 0) return ETIMEDOUT;
    return isClosed() ? ECANCELED : result;
  }

  std::atomic<bool> closed{false};  // changed under `mutex`, from false to true
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  Vector buffer;  // guarded by `mutex`
};
