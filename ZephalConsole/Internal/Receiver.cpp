#include "ZephalConsole/Internal/Receiver.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace zephal::internal {
namespace {

constexpr size_t kReadSize = size_t{64} * 1024;

// How long after an operation the line may go unread. A serial driver buffers much more than a line
// brings in this time, and one operation after another needs no change of threads.
constexpr std::chrono::milliseconds kPause(20);

Deadline never() { return Deadline::after(std::chrono::hours(24 * 365)); }

}  // namespace

Receiver::Receiver(const std::string& url, const ConsoleOptions& options, const Wakeup& wakeup)
    : _url(url),
      _options(options),
      _wakeup(wakeup),
      _buffer(new char[kReadSize]),  // std::make_unique would set it to zero
      _inbox(options.limit),
      _swapWatch(options.ecid),
      _rawLog(options.rawLog, "pre-"),
      _log(TrafficLog(options.log, "post")) {
  _rawLog.open(url);
  _log.open(url);
  _drainer = std::thread([this] { drain(); });
}

Receiver::~Receiver() {
  {
    Lock held = lock();
    _stops = true;
    detach(held);
    closeLogs(held);
  }
  _drainable.notify_all();
  _drainer.join();
}

void Receiver::attach(Lock&, std::shared_ptr<Line> line) {
  _log.open(_url);
  _rawLog.open(_url);
  _inbox.readUpTo(_inbox.end());
  _escapes.reset();
  _secrets.reset();
  _swapWatch.reset();
  _line = std::move(line);
  _hasEnded = false;
  _endError = 0;
  _lastByte = Clock::now();
  _drainable.notify_all();
}

void Receiver::detach(Lock& lock) {
  releaseHeld();
  _line.reset();
  if (_isReading) _wakeup.wake();
  _writersWakeup.wake();
  _changed.notify_all();
  _changed.wait(lock, [this] { return !_isReading; });
}

void Receiver::closeLogs(Lock&) {
  _rawLog.close();
  _log.close();
}

void Receiver::beginOperation(Lock&) { ++_operations; }

// The draining thread notices by itself; waking it would cost each operation a change of threads.
void Receiver::endOperation(Lock&) {
  --_operations;
  _lastOperation = Clock::now();
}

bool Receiver::receive(Lock& lock, const Deadline& limit) {
  const uint64_t before = _inbox.end();
  const Deadline until(std::min(limit.time(), heldUntil().value_or(limit.time())));
  if (_isReading) {
    _changed.wait_until(lock, until.time());
  } else if (!hasEnded(lock)) {
    read(lock, until);
  }
  const std::optional<Clock::time_point> release = heldUntil();
  if (release.has_value() && Clock::now() >= *release) releaseHeld();
  return _inbox.end() != before;
}

// When to show what may be the echo of a secret, or the beginning of one, if nothing follows. A
// beginning is held longer, because what is shown of a slow echo cannot be taken back.
std::optional<Receiver::Clock::time_point> Receiver::heldUntil() const {
  constexpr std::chrono::seconds kSlowest(1);
  if (!_secrets.holdsSomething()) return std::nullopt;
  const auto quiet = std::chrono::duration_cast<Clock::duration>(_options.quiet);
  return _lastByte + (_secrets.holdsEcho() ? quiet : std::max<Clock::duration>(quiet, kSlowest));
}

void Receiver::waitToWrite(Lock& lock, const Deadline& until) {
  const std::shared_ptr<Line> line = _line;
  if (line == nullptr) return;
  const bool mayRead = !_isReading;
  lock.unlock();
  line->waitToWrite(mayRead, until, _writersWakeup);
  _writersWakeup.clear();
  lock.lock();
  if (!_isReading && !hasEnded(lock)) read(lock, Deadline(Clock::now()));
}

void Receiver::wakeAll() const noexcept {
  _wakeup.wake();
  _writersWakeup.wake();
  const std::lock_guard held(_mutex);
  _changed.notify_all();
}

void Receiver::logWritten(Lock&, std::string_view bytes) {
  _rawLog.wrote(bytes);
  _log.wrote(bytes);
}

void Receiver::expectSecret(Lock& lock, std::string_view secret) {
  _secrets.add(secret);
  logWritten(lock, "***");
}

void Receiver::drain() {
  Lock held = lock();
  while (!_stops) {
    if (mayDrain()) {
      read(held, never());
    } else if (hasEnded(held) && _operations == 0) {
      _drainable.wait(held);
    } else {
      _drainable.wait_for(held, kPause);
    }
  }
}

bool Receiver::mayDrain() const {
  return _operations == 0 && !_isReading && _line != nullptr && !_hasEnded &&
         Clock::now() - _lastOperation >= kPause;
}

void Receiver::read(Lock& lock, const Deadline& until) {
  const std::shared_ptr<Line> line = _line;
  _isReading = true;
  lock.unlock();
  const Line::ReadResult result = line->read(_buffer.get(), kReadSize, until, _wakeup);
  if (result.isWoken) _wakeup.clear();
  lock.lock();
  _isReading = false;
  if (line == _line) {
    if (result.hasEnded) {
      releaseHeld();
      _hasEnded = true;
      _endError = result.error;
    }
    take({_buffer.get(), result.count});
  }
  _changed.notify_all();
}

void Receiver::take(std::string_view bytes) noexcept {
  if (bytes.empty()) return;
  _lastByte = Clock::now();
  try {
    takeMasked(bytes);
  } catch (const std::bad_alloc&) {
    endWithoutMemory();
  }
}

// Bytes would be missing, and nobody could tell where, so the line ends. What is held goes too: it
// may be a secret of which a part has been looked at.
void Receiver::endWithoutMemory() noexcept {
  _secrets.reset();
  _hasEnded = true;
  _endError = ENOMEM;
}

void Receiver::takeMasked(std::string_view bytes) {
  if (_secrets.isIdle()) {
    takeUnmasked(bytes);
    return;
  }
  std::string shown;
  _secrets.filter(bytes, shown);
  takeUnmasked(shown);
}

void Receiver::takeUnmasked(std::string_view bytes) {
  if (bytes.empty()) return;
  _rawLog.read(bytes);
  _log.read(bytes);
  _swapWatch.look(bytes);
  if (_options.keepEscapes) {
    _inbox.room(bytes.size()) += bytes;
  } else {
    _escapes.filter(bytes, _inbox.room(bytes.size()));
  }
  _inbox.appended(std::chrono::system_clock::now());
}

// What looked like the beginning of an echo was none, or stays one.
void Receiver::releaseHeld() noexcept {
  try {
    std::string shown;
    _secrets.flush(shown);
    takeUnmasked(shown);
  } catch (const std::bad_alloc&) {
    endWithoutMemory();
  }
}

}  // namespace zephal::internal
