#include "Data Channel Internal/ZPILogFileHandle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <thread>
#include <utility>

#include "Utility/ZPIWithoutSignalsOfWriting.h"
#include "ZephalLogging.h"

namespace {

// Chunks per lock and call: as many as writev(2) accepts on every system. Enough to make short
// chunks cheap, and few enough that no other writer waits long for the lock.
constexpr size_t kChunksPerWrite = 16;

// How long the chunks of one call wait for the file's lock.
constexpr std::chrono::seconds kLockPatience{1};
// Pauses between two attempts at the lock: a writer holds it for some microseconds, but a program
// that copies the file may hold it for longer.
constexpr std::chrono::microseconds kFirstPause{20};
constexpr std::chrono::microseconds kLongestPause{1000};

template <class Call>
auto retryOnInterrupt(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

int openWithFlags(const std::string& path, int flags) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY;
  constexpr mode_t kPermissions = 0666;
  return retryOnInterrupt([&] { return ::open(path.c_str(), kFlags | flags, kPermissions); });
}

// A FIFO without a reader fails with ENXIO instead of waiting for one. Later writes block as usual.
int openFile(const std::string& path, int flags) {
  const int descriptor = openWithFlags(path, flags | O_NONBLOCK);
  // A file server has a lease on the file. The system asks for it back; a blocking open waits.
  if (descriptor == -1 && errno == EWOULDBLOCK) return openWithFlags(path, flags);
  if (descriptor == -1 || ::fcntl(descriptor, F_SETFL, O_APPEND) == 0) return descriptor;
  const int number = errno;
  ::close(descriptor);
  errno = number;
  return -1;
}

// The part of the chunks under one lock that is not written yet.
class UnwrittenChunks {
 public:
  explicit UnwrittenChunks(std::span<const std::string_view> chunks) : _end(chunks.size()) {
    for (size_t i = 0; i < chunks.size(); ++i) {
      _parts[i] = {const_cast<char*>(chunks[i].data()), chunks[i].size()};
    }
  }

  bool isEmpty() const { return _begin == _end; }
  const iovec* parts() const { return &_parts[_begin]; }
  int count() const { return static_cast<int>(_end - _begin); }

  void removeFirstChunk() { ++_begin; }
  void removeFirstBytes(size_t count) {
    while (!isEmpty() && count >= _parts[_begin].iov_len) count -= _parts[_begin++].iov_len;
    if (isEmpty()) return;
    iovec& part = _parts[_begin];
    part = {static_cast<std::byte*>(part.iov_base) + count, part.iov_len - count};
  }

 private:
  std::array<iovec, kChunksPerWrite> _parts;
  size_t _begin = 0;
  size_t _end;
};

void writeAll(int descriptor, std::span<const std::string_view> chunks,
              ZPIWithoutSignalsOfWriting& signals) {
  UnwrittenChunks unwritten(chunks);
  while (!unwritten.isEmpty()) {
    const ssize_t written = retryOnInterrupt(
        [&] { return ::writev(descriptor, unwritten.parts(), unwritten.count()); });
    if (written > 0) {
      unwritten.removeFirstBytes(static_cast<size_t>(written));
    } else {
      if (written == -1) signals.discardSignalOf(errno);
      unwritten.removeFirstChunk();
    }
  }
}

}  // namespace

ZPILogFileHandlePtr ZPILogFileHandle::fileHandleForWritingAtPath(const std::string& path) {
  const int descriptor = openFile(path, 0);
  if (descriptor == -1) return nullptr;
  return std::make_shared<ZPILogFileHandle>(Key(), path, descriptor);
}

bool ZPILogFileHandle::createFileAtPath(const std::string& path) {
  const int descriptor = openFile(path, O_CREAT);
  if (descriptor == -1) return false;
  ::close(descriptor);
  return true;
}

ZPILogFileHandle::ZPILogFileHandle(Key, std::string path, int descriptor)
    : _path(std::move(path)), _descriptor(descriptor) {}

ZPILogFileHandle::~ZPILogFileHandle() { close(); }

void ZPILogFileHandle::append(std::span<const std::string_view> chunks) {
  if (_descriptor == -1 || chunks.empty()) return;
  ZPIWithoutSignalsOfWriting signals;
  const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
  bool wasLockTaken = false;
  while (!chunks.empty()) {
    const size_t count = std::min(chunks.size(), kChunksPerWrite);
    const bool isLocked = lockBefore(deadline);
    wasLockTaken = wasLockTaken || _isLockTaken;
    // O_APPEND makes every write begin at the end of the file.
    writeAll(_descriptor, chunks.first(count), signals);
    if (isLocked) ::flock(_descriptor, LOCK_UN);
    chunks = chunks.subspan(count);
  }
  if (wasLockTaken) logOnceThatLockIsTaken();
}

// Returns whether it got the lock. It tries repeatedly, since flock(2) has no time limit. If it did
// not get the lock in time, it then tries only once per write, until an attempt succeeds.
bool ZPILogFileHandle::lockBefore(std::chrono::steady_clock::time_point deadline) {
  const auto tryLock = [this] { return ::flock(_descriptor, LOCK_EX | LOCK_NB); };
  auto pause = kFirstPause;
  int result = retryOnInterrupt(tryLock);
  while (result == -1 && errno == EWOULDBLOCK && !_isLockTaken) {
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, kLongestPause);
    result = retryOnInterrupt(tryLock);
    _isLockTaken = result == -1 && std::chrono::steady_clock::now() >= deadline;
  }
  if (result == 0) _isLockTaken = false;
  return result == 0;
}

void ZPILogFileHandle::logOnceThatLockIsTaken() {
  if (std::exchange(_hasLoggedThatLockIsTaken, true)) return;
  ZPKLoggingLog(ZPKLogGetAnchor(), 0,
                "unable to lock file at path [%@] within a second, writing without the lock",
                _path);
}

void ZPILogFileHandle::close() {
  if (_descriptor != -1) ::close(_descriptor);
  _descriptor = -1;
}
