#include "ZephalConsole/Support/ShellDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace support {
namespace {

int checked(int result, const char* call) {
  if (result < 0) throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
  return result;
}

int listenOn(const std::string& path) {
  const int listener = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  checked(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  checked(::listen(listener, 1), "listen");
  return listener;
}

bool writeAll(int descriptor, const char* bytes, ssize_t count) {
  while (count > 0) {
    const ssize_t written = ::write(descriptor, bytes, static_cast<size_t>(count));
    if (written < 0) return false;
    bytes += written;
    count -= written;
  }
  return true;
}

bool copyOnce(int from, int to) {
  std::array<char, 4096> buffer{};
  const ssize_t count = ::read(from, buffer.data(), buffer.size());
  return count > 0 && writeAll(to, buffer.data(), count);
}

// In the child, between fork and exec.
[[noreturn]] void runProgram(const ShellDevice::Setup& setup) {
  // A shell keeps ignoring what was ignored when it started, as in a job in the background.
  ::signal(SIGINT, SIG_DFL);
  ::signal(SIGQUIT, SIG_DFL);
  ::setenv("TERM", setup.terminal.c_str(), 1);
  for (const std::string& variable : setup.environment) {
    ::putenv(const_cast<char*>(variable.c_str()));
  }
  std::vector<char*> arguments;
  for (const std::string& argument : setup.command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  ::execvp(arguments.front(), arguments.data());
  ::_exit(127);
}

}  // namespace

ShellDevice::ShellDevice(Setup setup) : _setup(std::move(setup)) {
  _listener = listenOn(_folder.pathOf("socket"));
  checked(::pipe2(_stop, O_CLOEXEC), "pipe2");
  startProgram();
  _thread = std::thread([this] { serve(); });
}

ShellDevice::~ShellDevice() {
  ::close(_stop[1]);
  _thread.join();
  ::close(_stop[0]);
  ::close(_terminal);
  ::close(_listener);
  ::kill(_process, SIGKILL);
  ::waitpid(_process, nullptr, 0);
}

void ShellDevice::startProgram() {
  winsize size{};
  size.ws_row = 24;
  size.ws_col = _setup.columns;
  _process = checked(::forkpty(&_terminal, nullptr, nullptr, &size), "forkpty");
  if (_process == 0) runProgram(_setup);
  ::fcntl(_terminal, F_SETFD, FD_CLOEXEC);
}

void ShellDevice::serve() {
  std::array<pollfd, 2> waiting{{{_listener, POLLIN, 0}, {_stop[0], POLLIN, 0}}};
  while (::poll(waiting.data(), waiting.size(), -1) >= 0 && waiting[1].revents == 0) {
    const int connection = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return;
    copyBothWays(connection);
    ::close(connection);
  }
}

void ShellDevice::copyBothWays(int connection) {
  std::array<pollfd, 3> waiting{
      {{connection, POLLIN, 0}, {_terminal, POLLIN, 0}, {_stop[0], POLLIN, 0}}};
  while (::poll(waiting.data(), waiting.size(), -1) >= 0 && waiting[2].revents == 0) {
    if (waiting[0].revents != 0 && !copyOnce(connection, _terminal)) return;
    if (waiting[1].revents != 0 && !copyOnce(_terminal, connection)) return;
  }
}

}  // namespace support
