// A simulated device with a text console on a pseudo-terminal, a TCP port and a unix socket, and
// with a TCP port on which it only reports. Prints their URLs, one per line, and runs until it is
// killed. It plays the device, so it uses plain system calls.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "Common.h"

namespace {

constexpr const char* kHelp =
    R"(usage: device [OPTION]... SOCKET_PATH

Plays a device with a console on a pseudo-terminal, a free TCP port and a unix socket
at SOCKET_PATH. Its commands: version, temperature, status, identify, echo TEXT,
silence. On another free TCP port it reports ten times a second, unasked. Prints the
four URLs, one per line, and runs until it is killed. Only this machine can reach it.
Each port and the socket serve one client at a time; the next ones wait. Once a
program has held the terminal exclusively, as talk does, only root can reopen it.
A client whose command is longer than 4096 bytes is disconnected.

  --idle S   seconds after which a client on a port or the socket that sends nothing
             to the console, or does not read, is disconnected [300]
  --help     print this
  --version  print the version

Exit status: 1 if it cannot listen, 2 for wrong usage.
)";

constexpr size_t kLongestCommand = 4096;

// The chip identifier is in the prompt from "identify" on.
constexpr std::string_view kPlainPrompt = "> ";
constexpr std::string_view kIdentifiedPrompt = "[0000BEEF:0BADF00D] :-) > ";

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

/// One console session: bytes in, responses out.
class Console {
 public:
  explicit Console(int descriptor) : _descriptor(descriptor) {}

  /// Takes bytes as they arrive, however they are split, and answers each whole line. False ends
  /// the session.
  bool take(std::string_view bytes) {
    _held += bytes;
    for (size_t end = _held.find('\n'); end != std::string::npos; end = _held.find('\n')) {
      const std::string line = _held.substr(0, end);
      _held.erase(0, end + 1);
      if (line == "silence") continue;
      if (!writeAll(_descriptor, answerTo(line)) || !writeAll(_descriptor, _prompt)) return false;
    }
    return _held.size() <= kLongestCommand;
  }

 private:
  std::string answerTo(const std::string& line) {
    if (line == "version") return "simulated device 1.0\n";
    if (line == "temperature") return "21.5 C\n";
    // Green, in a terminal's escape sequences.
    if (line == "status") return "\x1B[32mready\x1B[0m\n";
    if (line.starts_with("echo ")) return line.substr(5) + "\n";
    if (line == "identify") {
      _prompt = kIdentifiedPrompt;
      return "";
    }
    return "unknown command: " + line + "\n";
  }

  const int _descriptor;
  std::string _held;
  std::string_view _prompt = kPlainPrompt;
};

// Talks until the other side is gone, or has been silent for this long; -1 means forever.
void talk(int descriptor, int idleMilliseconds) {
  Console console(descriptor);
  char bytes[4096];
  for (;;) {
    pollfd readable{descriptor, POLLIN, 0};
    if (::poll(&readable, 1, idleMilliseconds) == 0) return;
    const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
    if (count <= 0 || !console.take({bytes, static_cast<size_t>(count)})) return;
  }
}

// Reports until the other side is gone, each time in two pieces.
void report(int descriptor, int /*idleMilliseconds*/) {
  for (int number = 1;; ++number) {
    if (!writeAll(descriptor, "report " + std::to_string(number) + ": ")) return;
    ::poll(nullptr, 0, 50);
    if (!writeAll(descriptor, "21.5 C\n")) return;
    ::poll(nullptr, 0, 50);
  }
}

void serveListener(int listener, int idleMilliseconds, void (*serveClient)(int, int)) {
  const timeval limit{idleMilliseconds / 1000, idleMilliseconds % 1000 * 1000};
  for (int client = ::accept(listener, nullptr, nullptr); client >= 0;
       client = ::accept(listener, nullptr, nullptr)) {
    // A write that takes longer than that fails.
    ::setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    serveClient(client, idleMilliseconds);
    ::close(client);
  }
}

// While nobody has the other end of a pseudo-terminal open, reading this one fails; try again soon.
void serveTerminal(int terminal) {
  for (;;) {
    talk(terminal, -1);
    ::poll(nullptr, 0, 20);
  }
}

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr, "device: %s: %s\n", what, std::strerror(errno));
  std::exit(kRefused);
}

int openTerminal(std::string* url) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
  termios settings{};
  if (terminal < 0 || ::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0 ||
      ::tcgetattr(terminal, &settings) != 0) {
    giveUp("cannot create a pseudo-terminal");
  }
  // No echo, no line editing: a device's wire, not a user's keyboard.
  ::cfmakeraw(&settings);
  ::tcsetattr(terminal, TCSANOW, &settings);
  *url = std::string("uart://") + ::ptsname(terminal);
  return terminal;
}

int listenOnTCP(std::string* url) {
  const int listener = listenOnLoopback(0);
  if (listener < 0) giveUp("cannot listen on TCP");
  *url = urlOfListener(listener);
  return listener;
}

int listenOnUnix(const std::string& path, std::string* url) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    giveUp(path.c_str());
  }
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (listener < 0 ||
      ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 5) != 0) {
    giveUp(path.c_str());
  }
  *url = "unix://" + path;
  return listener;
}

}  // namespace

int main(int count, char** words) {
  double idleSeconds = 300;
  CommandLine line(count, words, kHelp, {{"idle", required_argument, nullptr, 'i'}});
  while (line.nextOption() != 0) idleSeconds = line.seconds();
  const std::string socketPath = line.word("SOCKET_PATH");
  line.end();
  // A client that hangs up early costs a failed write, not the program.
  ::signal(SIGPIPE, SIG_IGN);

  std::string terminalURL;
  std::string tcpURL;
  std::string unixURL;
  std::string reportURL;
  const int terminal = openTerminal(&terminalURL);
  const int tcpListener = listenOnTCP(&tcpURL);
  const int unixListener = listenOnUnix(socketPath, &unixURL);
  const int reportListener = listenOnTCP(&reportURL);
  std::printf("%s\n%s\n%s\n%s\n", terminalURL.c_str(), tcpURL.c_str(), unixURL.c_str(),
              reportURL.c_str());
  std::fflush(stdout);

  const int idle = static_cast<int>(std::clamp(idleSeconds * 1000, 1.0, 1.0e9));
  std::thread tcpThread(serveListener, tcpListener, idle, talk);
  std::thread unixThread(serveListener, unixListener, idle, talk);
  std::thread reportThread(serveListener, reportListener, idle, report);
  serveTerminal(terminal);
}
