#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "Data Channel Internal/databufferchannel_t.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKAtomic.h"

/// Wraps a channel and reads it ahead: while it is open, a thread of its own reads the channel
/// below in slices of 1/30 second into a queue, and a read takes from the queue. Writes pass, on
/// the caller's thread. The null form reads below just the same, so that the layers there see all
/// traffic, but drops the bytes, and refuses reads and writes.
///
///       made over a closed channel             made over an open channel
///                  |                                      |
///                  v                open                  v
///            Never opened ---------------------------> Running <-----------+
///                                                       |   |              |
///              below has given null, or has closed: the |   | close: ends  |
///              thread ends by itself with the next read |   | the thread,  | open
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
/// Only Running answers true to isOpened. A failure below shows in two ways: a read that waits at
/// that moment gets its error, and close gives that error with code 2. Bytes that were not read by
/// then are lost. Each opening has a queue and an error of its own.
///
/// Failed is also where it stands if memory runs out on the thread, which then closes below and
/// keeps ENOMEM as its error, and if the system has no thread to give: an open then closes below
/// again, and a channel that was open before is left open.
///
/// Locks: `_stateLock`, then the queue's mutex, never the other way round. The thread takes the
/// second alone; that is why close may join it under the first, and why the join takes no longer
/// than a slice. `_stateLock` is held across open, close and reset of the channel below, and never
/// across a read or a write.
///
/// The thread holds its channel strongly: an open channel lives on when its users let go of it,
/// until the channel below fails. The last reference then goes on the thread itself. A callback
/// that runs within a read below runs on the thread too: it may close, if nobody else does at that
/// moment (who does holds `_stateLock` until the callback returns), and must not open.
class ZPIActiveChannel final : public ZPKDataChannel,
                               public std::enable_shared_from_this<ZPIActiveChannel> {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Wraps `channel`, in the buffering form or in the null form. If it is open the thread starts at
  /// once.
  static std::shared_ptr<ZPIActiveChannel> initWithChannel(ZPKDataChannelPtr channel,
                                                           bool bufferData);

  ZPIActiveChannel(Key, ZPKDataChannelPtr channel, bool bufferData);
  ZPIActiveChannel(const ZPIActiveChannel&) = delete;
  ZPIActiveChannel& operator=(const ZPIActiveChannel&) = delete;
  /// Closes nothing: no thread reads any more, or it would hold the channel.
  ~ZPIActiveChannel() override;

  /// True is what the channel below says of itself afterwards, whatever its own open returned. If
  /// the thread cannot be started, the slot has the error that is kept, and the result is false.
  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  /// May run beside a read, which gets null and no error, and beside a write, as far as the channel
  /// below allows a close beside one. A transport does: nothing more of that write goes out, and
  /// over a socket it ends at once.
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  /// All that is queued, as soon as there is anything; empty data when the time is up.
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  /// What one thread hands over. Held by the channel, by the thread, and by a read for its length.
  struct Handover {
    databufferchannel_t<uint8_t> _queue;
    // The error with which the thread ended, null if none. Stored after the queue is closed, so
    // that a read which the closing woke may still find null.
    ZPKAtomic<ZPKErrorPtr> _readError;
  };
  using HandoverPtr = std::shared_ptr<Handover>;

  bool isOpen_unsafe() const;
  void detach_read_loop__unsafe(pthread_t* thread);
  void endThread_unsafe();
  static void failWithoutThread(Handover& handover);
  void closeUnread_unsafe(ZPKErrorPtr* error);
  void readBelow(Handover& handover) const;
  bool readSlice(databufferchannel_t<uint8_t>* queue, ZPKErrorPtr* error) const;
  void closeOutOfMemory(ZPKErrorPtr* error) const;
  bool closeFailed(ZPKErrorPtr* error) const;

  const bool _buffer;  // the buffering form
  const ZPKDataChannelPtr _commChannel;
  // Zero if no thread was started or the last one was joined. Guarded by `_stateLock`.
  pthread_t _thread{};
  mutable std::mutex _stateLock;
  // Null before the first opening; a closed queue stays here until the next. Replaced under
  // `_stateLock`, copied without it.
  ZPKAtomic<HandoverPtr> _chan;
};
