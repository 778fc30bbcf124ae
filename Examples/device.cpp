// A simulated device with a text console on a pseudo terminal, a TCP port and a unix socket, and
// with a TCP port on which it only reports. Prints their URLs, one a line, and runs until it is
// killed. It plays the device, so it talks through plain system calls; only its listening TCP
// sockets come from the library.
#include <ZephalIO/ZPKSocketFunctions.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

namespace {

constexpr const char* kHelp =
    R"(usage: device [--help] SOCKET_PATH

Plays a device with a console on a pseudo terminal, a TCP port that is free and a
unix socket at SOCKET_PATH. Its commands: version, temperature, status, identify,
echo TEXT, silence. On another free TCP port it reports ten times a second, unasked.
Prints the four URLs, one a line, and runs until it is killed.
)";

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

  /// Takes bytes as they come, however they are split, and answers each whole line.
  bool take(std::string_view bytes) {
    _held += bytes;
    for (size_t end = _held.find('\n'); end != std::string::npos; end = _held.find('\n')) {
      const std::string line = _held.substr(0, end);
      _held.erase(0, end + 1);
      if (line == "silence") continue;
      if (!writeAll(_descriptor, answerTo(line)) || !writeAll(_descriptor, _prompt)) return false;
    }
    return true;
  }

 private:
  std::string answerTo(const std::string& line) {
    if (line == "version") return "simulated device 1.0\n";
    if (line == "temperature") return "21.5 C\n";
    // Green, as terminals take it.
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

// Talks until the other side is gone.
void serve(int descriptor) {
  Console console(descriptor);
  char bytes[4096];
  for (ssize_t count = 1; count > 0;) {
    count = ::read(descriptor, bytes, sizeof bytes);
    if (count > 0 && !console.take({bytes, static_cast<size_t>(count)})) return;
  }
}

// Reports until the other side is gone, each time in two pieces.
void report(int descriptor) {
  for (int number = 1;; ++number) {
    if (!writeAll(descriptor, "report " + std::to_string(number) + ": ")) return;
    ::poll(nullptr, 0, 50);
    if (!writeAll(descriptor, "21.5 C\n")) return;
    ::poll(nullptr, 0, 50);
  }
}

void serveListener(int listener, void (*serveClient)(int descriptor)) {
  for (int client = ::accept(listener, nullptr, nullptr); client >= 0;
       client = ::accept(listener, nullptr, nullptr)) {
    serveClient(client);
    ::close(client);
  }
}

// While nobody holds the other end of a pseudo terminal, reading this one fails; look again soon.
void serveTerminal(int terminal) {
  for (;;) {
    serve(terminal);
    ::poll(nullptr, 0, 20);
  }
}

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr, "device: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

int openTerminal(std::string* url) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
  termios settings{};
  if (terminal < 0 || ::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0 ||
      ::tcgetattr(terminal, &settings) != 0) {
    giveUp("cannot make a pseudo terminal");
  }
  // No echo, no line editing: a device's wire, not a user's keyboard.
  ::cfmakeraw(&settings);
  ::tcsetattr(terminal, TCSANOW, &settings);
  *url = std::string("uart://") + ::ptsname(terminal);
  return terminal;
}

// passive_tcp also sees to it that a client who hangs up early costs no more than a failed write.
int listenOnTCP(std::string* url) {
  const int listener = passive_tcp(0, false);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (listener < 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    giveUp("cannot listen on TCP");
  }
  *url = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
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

int main(int count, char** arguments) {
  const bool asksForHelp = count == 2 && std::string_view(arguments[1]) == "--help";
  if (count != 2 || asksForHelp) {
    std::fputs(kHelp, asksForHelp ? stdout : stderr);
    return asksForHelp ? 0 : 2;
  }
  std::string terminalURL;
  std::string tcpURL;
  std::string unixURL;
  std::string reportURL;
  const int terminal = openTerminal(&terminalURL);
  const int tcpListener = listenOnTCP(&tcpURL);
  const int unixListener = listenOnUnix(arguments[1], &unixURL);
  const int reportListener = listenOnTCP(&reportURL);
  std::printf("%s\n%s\n%s\n%s\n", terminalURL.c_str(), tcpURL.c_str(), unixURL.c_str(),
              reportURL.c_str());
  std::fflush(stdout);

  std::thread tcpThread(serveListener, tcpListener, serve);
  std::thread unixThread(serveListener, unixListener, serve);
  std::thread reportThread(serveListener, reportListener, report);
  serveTerminal(terminal);
}
