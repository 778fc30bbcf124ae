#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "Data Channel Internal/databufferchannel_t.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPIThreadSafety.h"
#include "Utility/ZPKAtomic.h"

/// Wraps a channel and reads ahead: while it is open, a thread of its own reads the channel below
/// into a queue, in slices of 1/30 second, and a read takes the queued bytes. Writes pass, on the
/// caller's thread. The null form also reads below, so that the layers there see all traffic, but
/// drops the bytes and rejects reads and writes.
///
///     created over a closed channel          created over an open channel
///                  |                                      |
///                  v                open                  v
///            Never opened ---------------------------> Running <-----------+
///                                                       |   |              |
///            a read below returned null, or below has   |   | close: ends  |
///            closed: the thread ends with its next read |   | the thread,  | open
///                                                       v   | then closes  |
///                                                   Failed  | below        |
///                                                       |   v              |
///                                                       | Closed ----------+
///                                                       +------------------+
///
///     state          channel below   queue    thread
///     Never opened   closed          none     none
///     Running        open            open     reads below
///     Failed         mostly closed   closed   has ended or is about to, not joined
///     Closed         closed          closed   joined
///
/// isOpened is true only in Running. A failure below shows in two ways: a read that is waiting gets
/// its error, and close returns that error with code 2. Bytes that were not read by then are lost.
/// Each opening has a queue and an error of its own.
///
/// The state also becomes Failed if memory runs out on the thread, which then closes below and
/// keeps ENOMEM as its error, and if the system cannot start the thread: an open then closes below
/// again, whereas a channel that was open before stays open. If memory runs out during an open, it
/// closes below too, and throws std::bad_alloc.
///
/// Locks: `_stateLock`, then the queue's mutex, never the other way round. The thread only takes
/// the second; that is why close may join it while it holds the first, and why the join takes at
/// most one slice. `_stateLock` is held during open, close and reset of the channel below, and
/// never during a read or a write.
///
/// The thread holds its channel strongly: an open channel lives on after its users have released
/// it, until the channel below fails. The thread itself then releases the last reference. A
/// callback that runs within a read below runs on the thread too. It must not open, and may close
/// only if no other thread is closing, since that thread holds `_stateLock` until the callback
/// returns.
class ZPIActiveChannel final : public ZPKDataChannel,
                               public std::enable_shared_from_this<ZPIActiveChannel> {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Wraps `channel`, in the buffering form or in the null form. If it is open, the thread starts
  /// immediately.
  static std::shared_ptr<ZPIActiveChannel> initWithChannel(ZPKDataChannelPtr channel,
                                                           bool bufferData);

  ZPIActiveChannel(Key, ZPKDataChannelPtr channel, bool bufferData);
  ZPIActiveChannel(const ZPIActiveChannel&) = delete;
  ZPIActiveChannel& operator=(const ZPIActiveChannel&) = delete;
  /// Closes nothing: no thread is reading any more, or it would hold the channel.
  ~ZPIActiveChannel() override;

  /// Returns whether the channel below is open afterwards, whatever its own open returned. If the
  /// thread cannot be started, the slot gets the error that is kept, and the result is false.
  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  /// May run during a read, which then returns null without an error, and during a write if the
  /// channel below allows that. A transport does: the rest of that write is not sent, and over a
  /// socket it ends immediately.
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  /// Returns all queued bytes, as soon as there are any; empty data when the timeout expires.
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  /// What one thread hands over. Held by the channel, by the thread, and by a read while it runs.
  struct Handover {
    databufferchannel_t<uint8_t> _queue;
    // The error with which the thread ended; null if none. Stored after the queue is closed, so a
    // read that the closing has woken may still find null.
    ZPKAtomic<ZPKErrorPtr> _readError;
  };
  using HandoverPtr = std::shared_ptr<Handover>;

  bool isOpen_unsafe() const ZPI_REQUIRES(_stateLock);
  void startReading_unsafe(ZPKErrorPtr* error) ZPI_REQUIRES(_stateLock);
  void detach_read_loop__unsafe(pthread_t* thread) ZPI_REQUIRES(_stateLock);
  void endThread_unsafe() ZPI_REQUIRES(_stateLock);
  static void failWithoutThread(Handover& handover);
  void closeUnread_unsafe(ZPKErrorPtr* error) ZPI_REQUIRES(_stateLock);
  void readBelow(Handover& handover) const;
  bool readSlice(databufferchannel_t<uint8_t>* queue, ZPKErrorPtr* error) const;
  void closeOutOfMemory(ZPKErrorPtr* error) const;
  bool closeFailed(ZPKErrorPtr* error) const;

  const bool _buffer;  // the buffering form
  const ZPKDataChannelPtr _commChannel;
  mutable std::mutex _stateLock;
  // Zero if no thread was started or the last one was joined.
  pthread_t _thread ZPI_GUARDED_BY(_stateLock){};
  // Null before the first opening; a closed queue stays here until the next opening. Replaced with
  // `_stateLock` held, copied without it.
  ZPKAtomic<HandoverPtr> _chan;
};
