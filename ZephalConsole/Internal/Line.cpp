#include "ZephalConsole/Internal/Line.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <new>
#include <utility>

namespace zephal::internal {
namespace {

// Whoever drops what has arrived must get all of it, so an interruption is not taken for silence.
ssize_t readUninterrupted(int descriptor, char* buffer, size_t size) {
  for (;;) {
    const ssize_t count = ::read(descriptor, buffer, size);
    if (count >= 0 || errno != EINTR) return count;
  }
}

}  // namespace

Line::Line(Descriptor descriptor, ZPKDataChannelPtr port, std::unique_ptr<Telnet> telnet)
    : _descriptor(std::move(descriptor)), _port(std::move(port)), _telnet(std::move(telnet)) {
  if (_telnet == nullptr) return;
  _telnet->begin([this](std::string_view bytes) { return send(bytes); });
}

Line::~Line() {
  if (_port != nullptr) closePort(_descriptor.number(), *_port);
}

void Line::closePort(int descriptor, ZPKDataChannel& port) noexcept {
  // The exclusive hold would outlast the port on a line that somebody else keeps open.
  ::ioctl(descriptor, TIOCNXCL);
  try {
    port.close();
  } catch (const std::bad_alloc&) {
    // The port is closed; only the report of a failure needs memory.
  }
}

Line::ReadResult Line::read(char* buffer, size_t size, const Deadline& deadline,
                            const Wakeup& wakeup) const {
  const int milliseconds = deadline.milliseconds();
  if (milliseconds == 0) return readNow(buffer, size);
  std::array<pollfd, 2> waiting{
      {{_descriptor.number(), POLLIN, 0}, {wakeup.descriptor(), POLLIN, 0}}};
  if (::poll(waiting.data(), waiting.size(), milliseconds) <= 0) return {};
  ReadResult result = waiting[0].revents == 0 ? ReadResult() : readNow(buffer, size);
  result.isWoken = waiting[1].revents != 0;
  return result;
}

Line::ReadResult Line::readNow(char* buffer, size_t size) const {
  const ssize_t count = readUninterrupted(_descriptor.number(), buffer, size);
  if (count > 0 && _telnet != nullptr) return receiveTelnet(buffer, static_cast<size_t>(count));
  if (count > 0) return {.count = static_cast<size_t>(count)};
  if (count < 0 && errno == EAGAIN) return {};
  // A terminal whose other end has gone reads EIO, which says less than that it has ended.
  const bool saysWhy = count < 0 && !(_port != nullptr && errno == EIO);
  return {.hasEnded = true, .error = saysWhy ? errno : 0};
}

// Without memory for an answer to the server, the rest of what it sent has no meaning.
Line::ReadResult Line::receiveTelnet(char* buffer, size_t size) const {
  try {
    const auto reply = [this](std::string_view bytes) { return send(bytes); };
    return {.count = _telnet->receive(buffer, size, reply)};
  } catch (const std::bad_alloc&) {
    return {.hasEnded = true, .error = ENOMEM};
  }
}

ssize_t Line::writeSome(std::string_view bytes) const {
  if (_telnet == nullptr) return send(bytes);
  return _telnet->write(bytes, [this](std::string_view piece) { return send(piece); });
}

ssize_t Line::send(std::string_view bytes) const {
  const int number = _descriptor.number();
  const ssize_t count = _port != nullptr ? ::write(number, bytes.data(), bytes.size())
                                         : ::send(number, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return count < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : count;
}

void Line::waitToWrite(bool orReadable, const Deadline& deadline, const Wakeup& wakeup) const {
  const short events = orReadable ? POLLOUT | POLLIN : POLLOUT;
  std::array<pollfd, 2> waiting{
      {{_descriptor.number(), events, 0}, {wakeup.descriptor(), POLLIN, 0}}};
  ::poll(waiting.data(), waiting.size(), deadline.milliseconds());
}

}  // namespace zephal::internal
