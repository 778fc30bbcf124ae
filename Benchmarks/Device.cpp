#include "Device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string_view>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

int checked(int result, const char* what) {
  if (result < 0) fail(what);
  return result;
}

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

void writeInPieces(int fd, const std::string& bytes, size_t piece) {
  for (size_t at = 0; at < bytes.size(); at += piece) {
    writeAll(fd, std::string_view(bytes).substr(at, piece));
  }
}

void flood(int fd, size_t width, size_t lines) {
  constexpr size_t kPiece = 65536;
  const std::string line = std::string(width - 1, 'x') + "\n";
  std::string text;
  while (text.size() < kPiece + width) text += line;
  const size_t length = width * lines;
  for (size_t at = 0; at < length; at += kPiece) {
    writeAll(fd, std::string_view(text).substr(at % width, std::min(kPiece, length - at)));
  }
}

// Lines of lower-case words with some punctuation, the same in every run.
std::string wordsOf(size_t length) {
  constexpr size_t kBlock = 65536;
  constexpr std::string_view kOthers = "\n  ,.:";
  std::minstd_rand random(1);
  std::string text(std::min(length, kBlock), ' ');
  for (char& letter : text) {
    const unsigned drawn = static_cast<unsigned>(random() >> 8) % 32;
    letter = drawn < 26 ? static_cast<char>('a' + drawn) : kOthers[drawn - 26];
  }
  text.reserve(length);
  while (text.size() < length) text.append(text, 0, length - text.size());
  return text;
}

std::string responseOf(const char* kind, size_t length) {
  if (std::strcmp(kind, "words") == 0) return wordsOf(length) + "> ";
  const bool isStairs = std::strcmp(kind, "stairs") == 0;
  return std::string(length, isStairs ? '>' : 'x') + (isStairs ? " " : "> ");
}

void answer(int fd, const std::string& command) {
  if (command == "ping") return writeAll(fd, "pong\n> ");
  if (command.starts_with("note ")) return;
  char name[16] = "";
  size_t first = 0;
  size_t second = 0;
  std::sscanf(command.c_str(), "%15s %zu %zu", name, &first, &second);
  if (std::strcmp(name, "flood") == 0) return flood(fd, first, second);
  writeInPieces(fd, responseOf(name, first), second);
}

// Answers every complete line that has arrived; false when the peer has gone.
bool serve(int fd, std::string& held) {
  char buffer[4096];
  const ssize_t count = ::read(fd, buffer, sizeof buffer);
  if (count <= 0) return false;
  held.append(buffer, static_cast<size_t>(count));
  for (size_t end = held.find('\n'); end != std::string::npos; end = held.find('\n')) {
    const std::string command = held.substr(0, end);
    held.erase(0, end + 1);
    answer(fd, command);
  }
  return true;
}

int acceptOn(int listener) {
  const int fd = checked(::accept(listener, nullptr, nullptr), "accept");
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

[[noreturn]] void serveOne(int fd) {
  std::string held;
  while (serve(fd, held)) {
  }
  ::_exit(0);
}

[[noreturn]] void serveAll(int listener) {
  std::map<int, std::string> connections;
  for (;;) {
    std::vector<pollfd> waiting{{listener, POLLIN, 0}};
    for (const auto& [fd, held] : connections) waiting.push_back({fd, POLLIN, 0});
    ::poll(waiting.data(), waiting.size(), -1);
    for (const pollfd& entry : waiting) {
      if (entry.revents == 0) continue;
      if (entry.fd == listener) {
        connections.emplace(acceptOn(listener), "");
      } else if (!serve(entry.fd, connections[entry.fd])) {
        ::close(entry.fd);
        connections.erase(entry.fd);
      }
    }
  }
}

}  // namespace

void pinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu >= 0) {
    CPU_SET(cpu, &set);
  } else {
    for (int i = 0; i < CPU_SETSIZE; ++i) CPU_SET(i, &set);
  }
  ::sched_setaffinity(0, sizeof set, &set);
}

void letStandBack(pid_t process) {
  const sched_param none{};
  checked(::sched_setscheduler(process, SCHED_IDLE, &none), "sched_setscheduler");
}

Device::Device(Transport transport, int cpu, bool servesMany) {
  _endpoint.transport = transport;
  switch (transport) {
    case Transport::Pty: openTerminal(); break;
    case Transport::Unix: listenOnPath(); break;
    case Transport::Tcp: listenOnPort(); break;
  }
  _process = checked(::fork(), "fork");
  if (_process != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::signal(SIGPIPE, SIG_IGN);
  pinTo(cpu);
  if (transport == Transport::Pty) serveOne(_listener);
  if (servesMany) serveAll(_listener);
  serveOne(acceptOn(_listener));
}

Device::~Device() {
  ::kill(_process, SIGKILL);
  ::waitpid(_process, nullptr, 0);
  ::close(_listener);
  if (_keptSlave >= 0) ::close(_keptSlave);
  if (_endpoint.transport == Transport::Unix) ::unlink(_endpoint.path.c_str());
}

void Device::standBack() const { letStandBack(_process); }

void Device::openTerminal() {
  _listener = checked(::posix_openpt(O_RDWR | O_NOCTTY), "posix_openpt");
  ::grantpt(_listener);
  ::unlockpt(_listener);
  _endpoint.path = ::ptsname(_listener);
  // Reading a master without a slave reports a hang-up.
  _keptSlave = openRawTerminal(_endpoint.path);
}

void Device::listenOnPath() {
  static int counter = 0;
  _endpoint.path =
      "/tmp/zephalio-bench-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
  // One that was killed may have left its own, and numbers of processes come again.
  ::unlink(_endpoint.path.c_str());
  _listener = checked(::socket(AF_UNIX, SOCK_STREAM, 0), "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, _endpoint.path.c_str(), sizeof address.sun_path - 1);
  checked(::bind(_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  checked(::listen(_listener, 1024), "listen");
}

void Device::listenOnPort() {
  _listener = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  checked(::bind(_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  checked(::listen(_listener, 1024), "listen");
  socklen_t length = sizeof address;
  ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length);
  _endpoint.port = ntohs(address.sin_port);
}
