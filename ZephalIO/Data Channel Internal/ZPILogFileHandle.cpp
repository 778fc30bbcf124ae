#include "Data Channel Internal/ZPILogFileHandle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

#include "Utility/ZPIWithoutSignalsOfWriting.h"
#include "ZephalLogging.h"

namespace {

// Bytes per lock and call, unless a single chunk is longer. Enough to make short chunks cheap, and
// few enough that no other writer waits long for the lock.
constexpr size_t kBytesPerWrite = 65536;

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

// A log that is written for months outgrows the 2 GiB at which a 32-bit system otherwise stops.
#ifdef O_LARGEFILE
constexpr int kOfAnySize = O_LARGEFILE;
#else
constexpr int kOfAnySize = 0;
#endif

int openWithFlags(const std::string& path, int flags) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | kOfAnySize;
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

// How many of the chunks that begin at `start` are written together.
size_t countOfOneWrite(size_t start, std::span<const size_t> ends) {
  const auto next = std::upper_bound(ends.begin(), ends.end(), start + kBytesPerWrite);
  return std::max<size_t>(1, static_cast<size_t>(next - ends.begin()));
}

// Writes the chunks that begin at `start` in the text.
void writeAll(int descriptor, std::string_view text, size_t start, std::span<const size_t> ends,
              ZPIWithoutSignalsOfWriting& signals) {
  while (start < ends.back()) {
    const ssize_t written = retryOnInterrupt(
        [&] { return ::write(descriptor, text.data() + start, ends.back() - start); });
    if (written > 0) {
      start += static_cast<size_t>(written);
    } else {
      if (written == -1) signals.discardSignalOf(errno);
      start = *std::upper_bound(ends.begin(), ends.end(), start);  // drops the rest of this chunk
    }
  }
}

}  // namespace

ZPILogFileHandlePtr ZPILogFileHandle::fileHandleForWritingAtPath(const std::string& path) {
  // The object first, so that no descriptor is left if there is no memory for it.
  auto handle = std::make_shared<ZPILogFileHandle>(Key(), path, -1);
  handle->_descriptor = openFile(path, 0);
  if (handle->_descriptor != -1) return handle;
  const int number = errno;
  handle.reset();
  errno = number;
  return nullptr;
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

void ZPILogFileHandle::append(const ZPILogBatch& chunks) {
  if (_descriptor == -1 || chunks.isEmpty()) return;
  ZPIWithoutSignalsOfWriting signals;
  const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
  bool wasLockTaken = false;
  size_t start = 0;
  for (std::span<const size_t> ends = chunks.ends(); !ends.empty();) {
    const std::span<const size_t> together = ends.first(countOfOneWrite(start, ends));
    const bool isLocked = lockBefore(deadline);
    wasLockTaken = wasLockTaken || _isLockTaken;
    // O_APPEND makes every write begin at the end of the file.
    writeAll(_descriptor, chunks.text(), start, together, signals);
    if (isLocked) ::flock(_descriptor, LOCK_UN);
    start = together.back();
    ends = ends.subspan(together.size());
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
