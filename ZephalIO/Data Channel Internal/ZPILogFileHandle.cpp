#include "Data Channel Internal/ZPILogFileHandle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>

#include "Utility/ZPIBlockedSignals.h"

namespace {

// Chunks per lock and call: what writev(2) takes on every system. Enough to make short ones cheap,
// and few enough that nobody else waits long for the lock.
constexpr size_t kChunksPerWrite = 16;

template <class Call>
auto retryOnInterrupt(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

int openFile(const std::string& path, int extraFlags) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY;
  constexpr mode_t kPermissions = 0666;
  return retryOnInterrupt([&] { return ::open(path.c_str(), kFlags | extraFlags, kPermissions); });
}

sigset_t signalsOfWriting() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGXFSZ);  // a file at its size limit
  ::sigaddset(&signals, SIGPIPE);  // a log path that names a pipe without a reader
  return signals;
}

sigset_t pendingSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigpending(&signals);
  return signals;
}

bool contains(const sigset_t& signals, int signal) { return ::sigismember(&signals, signal) == 1; }

// Lets a write fail with its errno alone: the default action of these signals ends the process, and
// a log is never worth that.
class WithoutSignalsOfWriting {
 public:
  /// Takes away the signal that a failed write has just raised on this thread. One that was waiting
  /// before is somebody else's and stays.
  void discardSignalOf(int errorNumber) {
    if (errorNumber == EFBIG) discard(SIGXFSZ);
    if (errorNumber == EPIPE) discard(SIGPIPE);
  }

 private:
  void discard(int signal) {
    if (contains(_pendingBefore, signal) || !contains(pendingSignals(), signal)) return;
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, signal);
    int taken = 0;
    ::sigwait(&signals, &taken);
  }

  const ZPIBlockedSignals _blocked{signalsOfWriting()};
  const sigset_t _pendingBefore = pendingSignals();
};

// The chunks of one locked write that are not out yet.
class Rest {
 public:
  explicit Rest(std::span<const std::string> chunks) : _end(chunks.size()) {
    for (size_t i = 0; i < chunks.size(); ++i) {
      _parts[i] = {const_cast<char*>(chunks[i].data()), chunks[i].size()};
    }
  }

  bool isEmpty() const { return _begin == _end; }
  const iovec* parts() const { return &_parts[_begin]; }
  int count() const { return static_cast<int>(_end - _begin); }

  void dropChunk() { ++_begin; }
  void dropBytes(size_t count) {
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

void writeAll(int descriptor, std::span<const std::string> chunks,
              WithoutSignalsOfWriting& signals) {
  Rest rest(chunks);
  while (!rest.isEmpty()) {
    const ssize_t written =
        retryOnInterrupt([&] { return ::writev(descriptor, rest.parts(), rest.count()); });
    if (written > 0) {
      rest.dropBytes(static_cast<size_t>(written));
    } else {
      if (written == -1) signals.discardSignalOf(errno);
      rest.dropChunk();
    }
  }
}

}  // namespace

ZPILogFileHandlePtr ZPILogFileHandle::fileHandleForWritingAtPath(const std::string& path) {
  const int descriptor = openFile(path, 0);
  if (descriptor == -1) return nullptr;
  return std::make_shared<ZPILogFileHandle>(Key(), descriptor);
}

bool ZPILogFileHandle::createFileAtPath(const std::string& path) {
  const int descriptor = openFile(path, O_CREAT);
  if (descriptor == -1) return false;
  ::close(descriptor);
  return true;
}

ZPILogFileHandle::ZPILogFileHandle(Key, int descriptor) : _descriptor(descriptor) {}

ZPILogFileHandle::~ZPILogFileHandle() { close(); }

void ZPILogFileHandle::append(std::span<const std::string> chunks) {
  if (_descriptor == -1) return;
  WithoutSignalsOfWriting signals;
  while (!chunks.empty()) {
    const size_t count = std::min(chunks.size(), kChunksPerWrite);
    retryOnInterrupt([this] { return ::flock(_descriptor, LOCK_EX); });
    // O_APPEND makes every write begin at the end of the file.
    writeAll(_descriptor, chunks.first(count), signals);
    ::flock(_descriptor, LOCK_UN);
    chunks = chunks.subspan(count);
  }
}

void ZPILogFileHandle::close() {
  if (_descriptor != -1) ::close(_descriptor);
  _descriptor = -1;
}
