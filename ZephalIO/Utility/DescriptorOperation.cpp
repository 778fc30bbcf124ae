#include "Utility/DescriptorOperation.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>

#include "Utility/ZPIRoom.h"
#include "Utility/ZPISpareBlock.h"
#include "Utility/ZPIWithoutSignalsOfWriting.h"
#include "Utility/ZPKMutableData.h"

namespace {

// The read size if no bytes wait yet: as much as a device can have sent by the end of the wait, and
// small enough for the heap's fast path.
constexpr size_t kReadSize = 65536;

// The longest finite wait: a longer one could overflow a timeval, and no process lives that long.
// With a time_t of 32 bits that is 68 years.
constexpr double kLongestWait =
    std::min(1.0e12, static_cast<double>(std::numeric_limits<time_t>::max()));

constexpr timeval kUnselectablePause{0, 100000};

timeval timevalFromSeconds(double seconds) {
  if (std::isnan(seconds)) return {};
  const double wait = std::clamp(seconds, -1.0, kLongestWait);
  timeval result{};
  result.tv_sec = static_cast<time_t>(std::floor(wait));
  result.tv_usec = static_cast<suseconds_t>(
      static_cast<int32_t>((wait - static_cast<double>(result.tv_sec)) * 1000000.0));
  return result;
}

int bytesWaiting(int descriptor) {
  int count = 0;
  ::ioctl(descriptor, FIONREAD, &count);
  return count;
}

// True as soon as the descriptor can be read; false on a timeout. If select fails, this reports it
// and sets `hasFailed`.
bool waitUntilReadable(int descriptor, double timeout, bool* hasFailed, ZPKErrorPtr* error) {
  fd_set set;
  FD_ZERO(&set);
  const bool fitsSet = descriptor < FD_SETSIZE;
  if (fitsSet) FD_SET(descriptor, &set);
  const bool isForever = timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER;
  timeval time = isForever ? kUnselectablePause : timevalFromSeconds(timeout);
  timeval* const limit = isForever && fitsSet ? nullptr : &time;
  const int highest = fitsSet ? descriptor : FD_SETSIZE - 1;
  const auto [count, number] = select_with_retry(highest + 1, &set, limit);
  if (count < 0) {
    ZPKReportFailure(error, kZPICommunicationDomain, 5, {"zephal_communication_read"},
                     "Select failed with error %s (%d), fd=%d", ZPIErrorText(number), number,
                     descriptor);
    *hasFailed = true;
    return false;
  }
  return count > 0 && fitsSet && FD_ISSET(descriptor, &set);
}

using Use = ZPIHeldDescriptor::Use;

struct FreeDeleter {
  void operator()(void* buffer) const { std::free(buffer); }
};

// Whether the descriptor was given up. Without a use it belongs to the caller and never is.
bool isGivenUp(const Use* use) { return use != nullptr && !use->isHeld(); }

ZPKDataPtr noBytes() {
  ZPISpareBlock::drop();
  return ZPKData::data();
}

ZPKDataPtr reportFailedRead(int number, ZPKErrorPtr* error) {
  ZPISpareBlock::drop();
  ZPKReportFailure(error, kZPICommunicationDomain, 5, {"zephal_communication_read"},
                   "Read failed with error %s (%d)", ZPIErrorText(number), number);
  return nullptr;
}

bool reportFailedWrite(int number, ZPKErrorPtr* error) {
  ZPKReportFailure(error, kZPICommunicationDomain, 5, {"zephal_communication_write"},
                   "Write failed with %s (%d)", ZPIErrorText(number), number);
  return false;
}

// Whether a read adds its bytes to those that the caller holds, instead of returning them. If it is
// not known how many will arrive, the room for them would be much for a buffer that holds few.
bool isReadOnto(const ZPKMutableData* held, int waiting) {
  if (held == nullptr || held->length() == 0) return false;
  return waiting > 0 || held->length() >= kReadSize;
}

// Neither form zeroes memory that read overwrites. A failed allocation fails the read.

ZPKDataPtr readApart(int descriptor, size_t size, ZPKErrorPtr* error) {
  const ZPISpareBlock::Room room = ZPISpareBlock::take(size);
  std::unique_ptr<void, FreeDeleter> buffer(room.block);
  const auto [count, number] = read_with_retry(descriptor, buffer.get(), size);
  if (count <= 0) return reportFailedRead(number, error);
  ZPKDataPtr data =
      ZPKMutableData::dataWithBytesNoCopy(buffer.get(), static_cast<size_t>(count), room.size);
  static_cast<void>(buffer.release());
  return data;
}

ZPKDataPtr readOnto(int descriptor, size_t size, ZPKMutableData* held, ZPKErrorPtr* error) {
  ZPIRoom room(held, size);
  const auto [count, number] = read_with_retry(descriptor, room.bytes(), size);
  if (count <= 0) return reportFailedRead(number, error);
  room.fill(static_cast<size_t>(count));
  return ZPKData::data();
}

ZPKDataPtr readFrom(int descriptor, const Use* use, ZPKMutableData* held, double timeout,
                    ZPKErrorPtr* error) {
  const int waiting = bytesWaiting(descriptor);
  const bool isNow = timeout == ZEPHAL_COMMUNICATION_TIME_NOW;
  if (isNow && waiting <= 0) return noBytes();
  const size_t size = waiting <= 0 ? kReadSize : static_cast<size_t>(waiting);
  if (!isNow) {
    // Such a wait may never end, and the block would be kept throughout.
    if (waiting <= 0 && timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER) ZPISpareBlock::drop();
    bool hasFailed = false;
    const bool isReadable = waitUntilReadable(descriptor, timeout, &hasFailed, error);
    if (hasFailed) return nullptr;
    if (isGivenUp(use)) return reportFailedRead(EBADF, error);
    if (!isReadable) return noBytes();
  }
  ZPISpareBlock::prepareRead(size);
  return isReadOnto(held, waiting) ? readOnto(descriptor, size, held, error)
                                   : readApart(descriptor, size, error);
}

template <class WriteCall>
bool writeAll(const Use* use, const ZPKDataPtr& data, ZPKErrorPtr* error, WriteCall writeCall) {
  const ZPKDataPtr held = data;
  const uint8_t* bytes = held == nullptr ? nullptr : held->bytes();
  size_t remaining = held == nullptr ? 0 : held->length();
  while (remaining > 0) {
    if (isGivenUp(use)) return reportFailedWrite(EBADF, error);
    errno = 0;
    const ssize_t written = writeCall(bytes, remaining);
    if (written < 1) return reportFailedWrite(errno, error);
    bytes += written;
    remaining -= static_cast<size_t>(written);
  }
  return true;
}

bool writeToAny(int descriptor, const Use* use, const ZPKDataPtr& data, ZPKErrorPtr* error) {
  std::optional<ZPIWithoutSignalsOfWriting> signals;  // set if this turns out not to be a socket
  return writeAll(use, data, error, [&](const uint8_t* bytes, size_t count) {
    if (!signals.has_value()) {
      const ssize_t sent = ::send(descriptor, bytes, count, MSG_NOSIGNAL);
      if (sent >= 0 || errno != ENOTSOCK) return sent;
      signals.emplace();
      errno = 0;
    }
    const ssize_t written = ::write(descriptor, bytes, count);
    const int number = errno;
    if (written < 0) signals->discardSignalOf(number);
    errno = number;
    return written;
  });
}

bool writeToNoSocket(int descriptor, const Use* use, const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return writeAll(use, data, error, [descriptor](const uint8_t* bytes, size_t count) {
    return ::write(descriptor, bytes, count);
  });
}

}  // namespace

ZPICallResult select_with_retry(int nfds, fd_set* readSet, timeval* timeout) {
  const int count = std::min(nfds, static_cast<int>(FD_SETSIZE));
  for (;;) {
    errno = 0;
    const int result = ::select(count, readSet, nullptr, nullptr, timeout);
    const int number = errno;
    if (result < 0 && (number == EAGAIN || number == EINTR)) continue;
    return {result, number};
  }
}

ZPICallResult read_with_retry(int descriptor, void* buffer, size_t count) {
  for (;;) {
    errno = 0;
    const ssize_t result = ::read(descriptor, buffer, count);
    const int number = errno;
    if (result < 0 && number == EAGAIN) continue;
    return {number == EINTR ? 0 : result, number};
  }
}

ZPKDataPtr zephal_communication_read(int descriptor, double timeout, ZPKErrorPtr* error) {
  return readFrom(descriptor, nullptr, nullptr, timeout, error);
}

ZPKDataPtr zephal_communication_read(const Use& use, ZPKMutableData* held, double timeout,
                                     ZPKErrorPtr* error) {
  return readFrom(use.descriptor(), &use, held, timeout, error);
}

bool zephal_communication_write(int descriptor, const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return writeToAny(descriptor, nullptr, data, error);
}

bool zephal_communication_write(const Use& use, const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return writeToAny(use.descriptor(), &use, data, error);
}

bool zephal_communication_write_no_socket(int descriptor, const ZPKDataPtr& data,
                                          ZPKErrorPtr* error) {
  return writeToNoSocket(descriptor, nullptr, data, error);
}

bool zephal_communication_write_no_socket(const Use& use, const ZPKDataPtr& data,
                                          ZPKErrorPtr* error) {
  return writeToNoSocket(use.descriptor(), &use, data, error);
}
