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

/// A one-way hand-over of a stream of plain values from one producer thread to one consumer thread.
/// It keeps no boundaries between what was sent, has no bound on its length, and is closed once and
/// for good, by either side; what was not received by then never is.
///
/// One consumer: a signal wakes one waiter, and a second one could sleep through the close. The
/// mutex is held for an append or for a swap of two vectors, never for a copy out.
///
/// Why an operation ended is told in errno, and nowhere else.
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

  /// Takes all that is queued, by swapping it with `output`, as soon as there is anything. Waits at
  /// most `timeout` seconds against the wall clock; ZEPHAL_COMMUNICATION_TIME_NOW does not wait,
  /// ZEPHAL_COMMUNICATION_TIME_FOREVER waits for as long as it takes.
  ///
  /// - true, errno 0: `output` has the values;
  /// - false, ETIMEDOUT: nothing came in time, or the queue was closed meanwhile. Values that come
  ///   in the instant in which the time runs out stay for the next call;
  /// - false, ECANCELED: the queue was closed in the instant in which the wait ended by itself;
  /// - false, EINVAL: the timeout is negative and not FOREVER, with an empty `output`, or it is not
  ///   a number;
  /// - false, any other: the wait failed;
  /// - false, errno as it was: the queue was closed before the call.
  ///
  /// `output` is as it was unless the result is true.
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

  /// Queues copies of `count` values and wakes the consumer. Nothing is queued, and errno stays, if
  /// `count` is 0 or the queue is closed; otherwise errno is what waking the consumer returned.
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

  /// Closes, and wakes the consumer. What is queued stays where it is, for nobody.
  void Close() {
    const ZPIMutexHold hold(&mutex);
    closed.store(true, std::memory_order_release);
    pthread_cond_signal(&condition);
  }

  /// Any thread may ask, without a lock. A true answer orders what was done before the close.
  bool isClosed() const { return closed.load(std::memory_order_acquire); }

 private:
  static bool isRefused(double timeout, const Vector& output) {
    if (std::isnan(timeout)) return true;
    return timeout < 0.0 && timeout != ZEPHAL_COMMUNICATION_TIME_FOREVER && output.empty();
  }

  // 0 once there are values, otherwise the reason why there are none. Needs `mutex`.
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
