#include "Stress/FarEnd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "Support/CheckedCalls.h"
#include "Support/EventWait.h"

namespace support {

namespace {

constexpr size_t kLargestPiece = 3000;
constexpr std::chrono::microseconds kPause{300};

// False if there is nothing to do within a moment.
bool isReady(int descriptor, short event) {
  pollfd entry{descriptor, event, 0};
  return ::poll(&entry, 1, 5) > 0;
}

// The peer may have gone: that is no signal here.
ssize_t sendSome(int descriptor, const std::string& bytes) {
  const ssize_t sent = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  return ::write(descriptor, bytes.data(), bytes.size());
}

bool isOnlyBusy(ssize_t result) { return result < 0 && (errno == EAGAIN || errno == EINTR); }

int withoutWaiting(int descriptor) {
  return checked(::fcntl(descriptor, F_SETFL, O_NONBLOCK), "fcntl") == 0 ? descriptor : -1;
}

}  // namespace

FarEnd::FarEnd(Dice& dice, int descriptor, size_t size)
    : _descriptor(withoutWaiting(descriptor)),
      _sender([this, own = dice.child(), size] { send(own, size); }),
      _receiver([this, own = dice.child()] { receive(own); }) {}

FarEnd::~FarEnd() {
  _isOver = true;
  _sender.join();
  _receiver.join();
}

bool FarEnd::waitForReceived(size_t count) const {
  return waitFor([&] { return received() >= count; });
}

void FarEnd::send(Dice dice, size_t size) {
  NumberedBytes bytes(kSent);
  std::string rest;
  while (!_isOver && (!rest.empty() || bytes.count() < size)) {
    if (rest.empty()) {
      rest = bytes.take(std::min(size - bytes.count(), 1 + dice.below(kLargestPiece)));
      dice.pause(kPause);
    }
    if (!isReady(_descriptor, POLLOUT)) continue;
    const ssize_t sent = sendSome(_descriptor, rest);
    if (isOnlyBusy(sent)) continue;
    if (sent < 0) return;
    rest.erase(0, static_cast<size_t>(sent));
  }
}

void FarEnd::receive(Dice dice) {
  NumberedBytes bytes(kReceived);
  std::array<char, kLargestPiece> buffer{};
  while (!_isOver) {
    if (!isReady(_descriptor, POLLIN)) continue;
    const ssize_t count = ::read(_descriptor, buffer.data(), 1 + dice.below(buffer.size()));
    if (isOnlyBusy(count)) continue;
    if (count <= 0) return;
    bytes.expect({buffer.data(), static_cast<size_t>(count)}, "at the far end");
    _received = bytes.count();
    dice.pause(kPause);
  }
}

}  // namespace support
