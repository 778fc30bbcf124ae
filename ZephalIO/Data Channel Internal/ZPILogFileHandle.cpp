#include "Data Channel Internal/ZPILogFileHandle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

#include "Utility/ZPIWithoutSignalsOfWriting.h"

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

// The chunks of one locked write that are not out yet.
class Rest {
 public:
  explicit Rest(std::span<const std::string_view> chunks) : _end(chunks.size()) {
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

void writeAll(int descriptor, std::span<const std::string_view> chunks,
              ZPIWithoutSignalsOfWriting& signals) {
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

void ZPILogFileHandle::append(std::span<const std::string_view> chunks) {
  if (_descriptor == -1) return;
  ZPIWithoutSignalsOfWriting signals;
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
