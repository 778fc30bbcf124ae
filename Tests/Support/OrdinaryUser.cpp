#include "Support/OrdinaryUser.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <string_view>
#include <system_error>

#include "Support/EventWait.h"

// Writes the counts of this process; only a build that counts coverage has it.
extern "C" [[gnu::weak]] void __gcov_dump();

namespace support {

namespace {

constexpr uid_t kNobody = 65534;
constexpr int kExceptionStatus = 255;

bool becomeNobody() {
  return ::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0;
}

int runGuarded(const ChildFunction& function, std::string* message) {
  try {
    return function(message);
  } catch (const std::exception& exception) {
    *message = std::string("exception: ") + exception.what();
    return kExceptionStatus;
  }
}

void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

std::string readUntilClosed(int descriptor) {
  std::string text;
  while (waitUntilReadable(descriptor)) {
    char buffer[4096];
    const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

// The counts do not fit under the limit of a test about file sizes.
void writeCounts() {
  constexpr rlimit kNone{RLIM_INFINITY, RLIM_INFINITY};
  if (__gcov_dump != nullptr && ::setrlimit(RLIMIT_FSIZE, &kNone) == 0) __gcov_dump();
}

ChildResult waitForEnd(pid_t child) {
  int status = 0;
  const bool hasEnded = waitFor([&] { return ::waitpid(child, &status, WNOHANG) == child; });
  if (!hasEnded) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  ChildResult result;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

ChildResult run(const ChildFunction& function, bool asNobody) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  const pid_t child = ::fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    ::close(ends[0]);
    std::string message;
    const bool isReady = !asNobody || becomeNobody();
    if (!isReady) message = "cannot become an ordinary user";
    const int status = isReady ? runGuarded(function, &message) : kExceptionStatus;
    writeAll(ends[1], message);
    writeCounts();
    // Not exit: only the parent may run the exit handlers of the test program.
    ::_exit(status);
  }
  ::close(ends[1]);
  const std::string message = readUntilClosed(ends[0]);
  ::close(ends[0]);
  ChildResult result = waitForEnd(child);
  result.message = message;
  return result;
}

}  // namespace

ChildResult runInChild(const ChildFunction& function) { return run(function, false); }

bool canChildAlwaysAllocate() {
#ifdef __SANITIZE_ADDRESS__
  return false;
#else
  return true;
#endif
}

ChildResult runAsOrdinaryUser(const ChildFunction& function) {
  return run(function, ::geteuid() == 0);
}

}  // namespace support
