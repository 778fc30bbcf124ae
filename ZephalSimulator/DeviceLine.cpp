#include "DeviceLine.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "CheckedCall.h"

namespace zephal {

namespace {

// For peers that connect while another one is served.
constexpr int kBacklog = 5;

constexpr mode_t kEveryone = 0666;

std::string makeTemporaryFolder() {
  std::string name = std::filesystem::temp_directory_path().string() + "/zephal-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) throwFailure(errno, "mkdtemp", name);
  if (::chmod(name.c_str(), 0755) == -1) {
    const int number = errno;
    ::rmdir(name.c_str());
    throwFailure(number, "chmod", name);
  }
  return name;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

template <class Address>
void bindTo(int descriptor, const Address& address, const std::string& name) {
  checkedCall(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address),
              "bind", name);
}

// A socket at the port, which others may be bound to as well while none of them listens.
int socketAtPort(int port) {
  int descriptor =
      checkedCall(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
  const int on = 1;
  try {
    checkedCall(::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
    bindTo(descriptor, loopback(port), "127.0.0.1:" + std::to_string(port));
  } catch (...) {
    closeDescriptor(&descriptor);
    throw;
  }
  return descriptor;
}

void makeRaw(int terminal) {
  termios attributes{};
  checkedCall(::tcgetattr(terminal, &attributes), "tcgetattr");
  ::cfmakeraw(&attributes);
  checkedCall(::tcsetattr(terminal, TCSANOW, &attributes), "tcsetattr");
}

// A path as a URL has it.
std::string escaped(const std::string& path) {
  constexpr std::string_view kPlain = "/-._~";
  std::string text;
  for (const char byte : path) {
    const auto number = static_cast<unsigned char>(byte);
    const bool isPlain =
        (number < 0x80 && std::isalnum(number) != 0) || kPlain.find(byte) != std::string_view::npos;
    char code[4];
    std::snprintf(code, sizeof code, "%%%02X", number);
    text += isPlain ? std::string(1, byte) : code;
  }
  return text;
}

bool mustTryAgain() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

DeviceLine::DeviceLine(DevicePlace place) : _place(std::move(place)) {
  try {
    chooseAddress();
  } catch (...) {
    releaseAddress();
    throw;
  }
}

DeviceLine::~DeviceLine() {
  disappear();
  releaseAddress();
}

void DeviceLine::releaseAddress() {
  closeDescriptor(&_holder);
  if (!_folder.empty()) ::rmdir(_folder.c_str());
}

void DeviceLine::chooseAddress() {
  if (_place.kind == DeviceKind::kTCP) {
    holdPort();
    _url = "tcp://127.0.0.1:" + std::to_string(_place.port);
    return;
  }
  const bool isTerminal = _place.kind == DeviceKind::kTerminal;
  if (_place.path.empty()) {
    _folder = makeTemporaryFolder();
    _place.path = _folder + (isTerminal ? "/tty" : "/socket");
  }
  _place.path = std::filesystem::absolute(_place.path).string();
  _url = (isTerminal ? "uart://" : "unix://") + escaped(_place.path);
}

void DeviceLine::holdPort() {
  _holder = socketAtPort(_place.port);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  checkedCall(::getsockname(_holder, reinterpret_cast<sockaddr*>(&address), &length),
              "getsockname");
  _place.port = ntohs(address.sin_port);
}

void DeviceLine::appear() {
  try {
    if (_place.kind == DeviceKind::kTerminal) {
      makeTerminal();
    } else if (_place.kind == DeviceKind::kTCP) {
      listenOnTCP();
    } else {
      listenOnUnix();
    }
  } catch (...) {
    disappear();
    throw;
  }
}

void DeviceLine::makeTerminal() {
  _line = checkedCall(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
  checkedCall(::grantpt(_line), "grantpt");
  checkedCall(::unlockpt(_line), "unlockpt");
  char name[64] = "";
  const int number = ::ptsname_r(_line, name, sizeof name);
  if (number != 0) throwFailure(number, "ptsname_r", "");
  _slave = checkedCall(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), "open", name);
  ::chmod(name, kEveryone);
  makeRaw(_slave);
  checkedCall(::fcntl(_line, F_SETFL, O_NONBLOCK), "fcntl");
  checkedCall(::symlink(name, _place.path.c_str()), "symlink", _place.path);
  _isThere = true;
}

void DeviceLine::listenOnTCP() {
  _listener = socketAtPort(_place.port);
  checkedCall(::listen(_listener, kBacklog), "listen", _url);
  _isThere = true;
}

void DeviceLine::listenOnUnix() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (_place.path.size() >= sizeof address.sun_path) {
    throwFailure(ENAMETOOLONG, "bind", _place.path);
  }
  _place.path.copy(address.sun_path, sizeof address.sun_path - 1);
  _listener =
      checkedCall(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
  bindTo(_listener, address, _place.path);
  _isThere = true;
  checkedCall(::chmod(_place.path.c_str(), kEveryone), "chmod", _place.path);
  checkedCall(::listen(_listener, kBacklog), "listen", _place.path);
}

void DeviceLine::disappear() {
  // First, so that nobody finds an address at which nothing answers.
  if (_isThere && !_place.path.empty()) ::unlink(_place.path.c_str());
  _isThere = false;
  stopListening();
  if (_line >= 0 && _place.kind == DeviceKind::kTCP) finish(nullptr);
  for (int* descriptor : {&_line, &_slave, &_listener}) closeDescriptor(descriptor);
}

bool DeviceLine::accept() {
  if (acceptor() < 0) return false;
  _line = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (_line < 0) return false;
  const int on = 1;
  if (_place.kind == DeviceKind::kTCP) {
    ::setsockopt(_line, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return true;
}

std::optional<std::string> DeviceLine::receive() {
  char buffer[4096];
  const ssize_t count = ::read(_line, buffer, sizeof buffer);
  if (count > 0) return std::string(buffer, static_cast<size_t>(count));
  if (count < 0 && mustTryAgain()) return "";
  return std::nullopt;
}

std::optional<size_t> DeviceLine::send(std::string_view bytes) {
  const ssize_t count = _place.kind == DeviceKind::kTerminal
                            ? ::write(_line, bytes.data(), bytes.size())
                            : ::send(_line, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (count >= 0) return static_cast<size_t>(count);
  if (mustTryAgain()) return 0;
  return std::nullopt;
}

bool DeviceLine::isUnread() const {
  // This moves the bytes that are still on their way first, which FIONREAD would not.
  pollfd entry{_slave, POLLIN, 0};
  return _slave >= 0 && ::poll(&entry, 1, 0) > 0;
}

std::string DeviceLine::hangUp() {
  if (_place.kind == DeviceKind::kTerminal) {
    disappear();
    return "";
  }
  std::string last;
  if (_place.kind == DeviceKind::kTCP) finish(&last);
  closeDescriptor(&_line);
  return last;
}

// Unread bytes would turn the close of a TCP connection into a reset.
void DeviceLine::finish(std::string* last) const {
  ::shutdown(_line, SHUT_WR);
  char buffer[4096];
  for (ssize_t count = ::read(_line, buffer, sizeof buffer); count > 0;
       count = ::read(_line, buffer, sizeof buffer)) {
    if (last != nullptr) last->append(buffer, static_cast<size_t>(count));
  }
}

void DeviceLine::reset() {
  if (_place.kind == DeviceKind::kTCP) {
    const linger now{1, 0};
    ::setsockopt(_line, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    closeDescriptor(&_line);
  } else {
    hangUp();
  }
}

void DeviceLine::stopListening() {
  // After only a close it would listen on while somebody polls it.
  if (_listener >= 0) ::shutdown(_listener, SHUT_RDWR);
  closeDescriptor(&_listener);
}

void DeviceLine::liftExclusiveHold() {
  if (_slave >= 0) checkedCall(::ioctl(_slave, TIOCNXCL), "ioctl TIOCNXCL", _place.path);
}

}  // namespace zephal
