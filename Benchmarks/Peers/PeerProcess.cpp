#include "Peers/PeerProcess.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void become(const std::vector<std::string>& command, int end) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::dup2(end, STDIN_FILENO);
  ::dup2(end, STDOUT_FILENO);
  ::close_range(STDERR_FILENO + 1, ~0U, 0);  // devices and other peers are none of its business
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  ::execvp(arguments[0], arguments.data());
  std::printf("missing %s\n", arguments[0]);
  std::fflush(stdout);
  ::_exit(1);
}

}  // namespace

PeerProcess::PeerProcess(const std::vector<std::string>& command) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) std::exit(1);
  _end = ends[0];
  _process = ::fork();
  if (_process < 0) std::exit(1);
  if (_process == 0) become(command, ends[1]);
  ::close(ends[1]);
}

PeerProcess::~PeerProcess() {
  // Its devices, forked later, have the descriptor too.
  ::shutdown(_end, SHUT_RDWR);
  ::close(_end);
  ::waitpid(_process, nullptr, 0);
}

std::string PeerProcess::readLine() {
  for (;;) {
    const size_t end = _received.find('\n');
    if (end != std::string::npos) {
      const std::string line = _received.substr(0, end);
      _received.erase(0, end + 1);
      return line;
    }
    char buffer[4096];
    const ssize_t count = ::read(_end, buffer, sizeof buffer);
    if (count <= 0) return "failed it ended";
    _received.append(buffer, static_cast<size_t>(count));
  }
}

std::string PeerProcess::ask(const std::string& line) {
  const std::string text = line + "\n";
  ::send(_end, text.data(), text.size(), MSG_NOSIGNAL);
  return readLine();
}
