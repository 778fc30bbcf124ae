#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "ZephalConsole/Console.h"
#include "ZephalConsole/Internal/EscapeFilter.h"
#include "ZephalConsole/Internal/Inbox.h"
#include "ZephalConsole/Internal/Line.h"
#include "ZephalConsole/Internal/LineLog.h"
#include "ZephalConsole/Internal/SecretMask.h"
#include "ZephalConsole/Internal/SwapWatch.h"

namespace zephal::internal {

/// The line and everything that it has brought.
///
/// One thread reads at a time. While an operation runs, it is the operation's own, so that an
/// answer needs no change of threads; if nothing has run for a moment, it is a thread of this
/// class, which sleeps until bytes arrive. An operation that finds that thread reading leaves the
/// next bytes to it.
///
/// If there is no memory for what a line has brought, the line ends, with ENOMEM.
///
/// Functions that take a lock need it held; it is released while they wait.
class Receiver {
 public:
  using Lock = std::unique_lock<std::mutex>;
  using Clock = std::chrono::steady_clock;

  /// Opens the logs; throws OpenError. `wakeup` ends the wait of the thread that reads.
  Receiver(const std::string& url, const ConsoleOptions& options, const Wakeup& wakeup);
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;
  ~Receiver();

  Lock lock() const { return Lock(_mutex); }

  /// Begins to read a line, forgets what was unread, and opens the logs if they are closed.
  void attach(Lock& lock, std::shared_ptr<Line> line);
  /// Lets go of the line, if there is one; it has closed when this returns, unless a write is in
  /// progress. Waits of operations end.
  void detach(Lock& lock);
  void closeLogs(Lock& lock);

  /// While an operation runs, this class's thread does not begin to read.
  void beginOperation(Lock& lock);
  void endOperation(Lock& lock);

  /// Waits until bytes arrive or the line ends, the deadline passes, or something wakes it. Returns
  /// whether bytes have arrived.
  bool receive(Lock& lock, const Deadline& until);

  /// Waits until the line accepts bytes; otherwise as `receive`. What arrives meanwhile is read.
  void waitToWrite(Lock& lock, const Deadline& until);
  /// Waits until the time, or until something wakes it.
  void pause(Lock& lock, const Deadline& until) { _changed.wait_until(lock, until.time()); }
  /// Ends the waits of all operations. Any thread may call it, without the lock.
  void wakeAll() const noexcept;

  Inbox& inbox(Lock&) { return _inbox; }
  /// Null after the line was detached.
  std::shared_ptr<Line> line(Lock&) const { return _line; }
  bool hasEnded(Lock&) const { return _line == nullptr || _hasEnded; }
  /// Why the line has ended, if the system says so.
  int endError(Lock&) const { return _endError; }
  Clock::time_point lastByte(Lock&) const { return _lastByte; }
  const std::optional<std::string>& swap(Lock&) const { return _swapWatch.swap(); }

  /// Logs what an operation is about to write.
  void logWritten(Lock& lock, std::string_view bytes);
  /// Masks the echo of a secret that is about to be written, which the logs show as "***".
  void expectSecret(Lock& lock, std::string_view secret);

 private:
  void drain();
  bool mayDrain() const;
  void read(Lock& lock, const Deadline& until);
  void take(std::string_view bytes) noexcept;
  void takeMasked(std::string_view bytes);
  void takeUnmasked(std::string_view bytes);
  std::optional<Clock::time_point> heldUntil() const;
  void releaseHeld() noexcept;
  void endWithoutMemory() noexcept;

  const std::string _url;
  const ConsoleOptions& _options;
  // Each has one thread that waits and clears it: it would take the other one's wake-up too.
  const Wakeup& _wakeup;
  const Wakeup _writersWakeup;
  // Of the one who reads. Not cleared: what is never used takes no memory.
  const std::unique_ptr<char[]> _buffer;

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;  // for operations
  std::condition_variable _drainable;        // for the thread
  // Everything below is guarded by the mutex.
  std::shared_ptr<Line> _line;
  bool _isReading = false;
  bool _hasEnded = false;
  int _endError = 0;
  Inbox _inbox;
  EscapeFilter _escapes;
  SecretMask _secrets;
  SwapWatch _swapWatch;
  TrafficLog _rawLog;
  LineLog _log;
  Clock::time_point _lastByte;
  size_t _operations = 0;
  Clock::time_point _lastOperation;
  bool _stops = false;

  std::thread _drainer;
};

}  // namespace zephal::internal
