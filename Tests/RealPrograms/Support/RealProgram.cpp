#include "RealPrograms/Support/RealProgram.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "RealPrograms/Support/Listener.h"
#include "Support/Files.h"

namespace support {
namespace {

constexpr uid_t kNobody = 65534;
constexpr int kCannotRun = 127;
#ifdef SYS_setgroups32
constexpr int kSetGroups = SYS_setgroups32;
#else
constexpr int kSetGroups = SYS_setgroups;
#endif
constexpr const char* kPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// What follows runs in the child, between fork and exec.

void check(int result, const char* call) {
  if (result >= 0) return;
  std::perror(call);
  ::_exit(kCannotRun);
}

void redirect(const std::string& outputFile) {
  const int input = ::open("/dev/null", O_RDONLY);
  const int output = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
  check(input, "open /dev/null");
  check(output, "open the output");
  check(::dup2(input, STDIN_FILENO), "dup2");
  check(::dup2(output, STDOUT_FILENO), "dup2");
  check(::dup2(output, STDERR_FILENO), "dup2");
  ::close_range(STDERR_FILENO + 1, ~0U, 0);
}

void becomeNobody() {
  check(::setgroups(0, nullptr), "setgroups");
  check(::setgid(kNobody), "setgid");
  check(::setuid(kNobody), "setuid");
}

void ignoreGroups() {
  constexpr unsigned kSucceeds = SECCOMP_RET_ERRNO;  // with errno 0
  std::array<sock_filter, 4> filter{{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kSetGroups, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, kSucceeds),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog program{filter.size(), filter.data()};
  check(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "prctl");
  check(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), "prctl");
}

[[noreturn]] void run(const RealProgram::Setup& setup, const std::string& outputFile) {
  redirect(outputFile);
  check(::setsid(), "setsid");
  ::setenv("PATH", kPath, 1);
  ::setenv("LC_ALL", "C", 1);
  for (const std::string& variable : setup.environment) {
    ::putenv(const_cast<char*>(variable.c_str()));
  }
  if (setup.asOrdinaryUser && ::geteuid() == 0) becomeNobody();
  if (setup.ignoresGroups) ignoreGroups();
  // After a change of the user, which would undo it.
  check(::prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
  std::vector<char*> arguments;
  for (const std::string& argument : setup.command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  ::execvp(arguments.front(), arguments.data());
  std::perror(arguments.front());
  ::_exit(kCannotRun);
}

}  // namespace

bool waitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

RealProgram::RealProgram(Setup setup) : _setup(std::move(setup)) {
  const std::string outputFile = _folder.pathOf("output");
  _process = ::fork();
  if (_process < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (_process == 0) run(_setup, outputFile);
}

RealProgram::~RealProgram() {
  kill();
  if (!testing::Test::HasFailure() && !std::uncaught_exceptions()) return;
  std::cerr << "---- what " << _setup.command.front() << " printed\n" << output() << "\n----\n";
}

void RealProgram::waitUntil(const std::function<bool()>& condition, const std::string& what) {
  bool holds = false;
  const bool isOver = waitFor([&] {
    const bool hadEnded = hasEnded();
    holds = condition();
    return holds || hadEnded;
  });
  if (!holds) fail((isOver ? "ended before " : "timed out before ") + what);
}

void RealProgram::waitUntilItListens(const std::string& url) {
  waitUntil([&url] { return isListening(url); }, "it listened at " + url);
}

int RealProgram::waitForEnd() {
  if (!waitFor([this] { return hasEnded(); })) fail("does not end");
  return WIFEXITED(_status) ? WEXITSTATUS(_status) : -1;
}

void RealProgram::kill() {
  if (hasEnded()) return;
  ::kill(-_process, SIGKILL);
  ::kill(_process, SIGKILL);  // it may not have got to its setsid
  ::waitpid(_process, &_status, 0);
  _isReaped = true;
}

std::string RealProgram::output() const { return contentsOfFile(_folder.pathOf("output")); }

bool RealProgram::hasEnded() {
  if (!_isReaped) _isReaped = ::waitpid(_process, &_status, WNOHANG) == _process;
  return _isReaped;
}

void RealProgram::fail(const std::string& why) const {
  throw std::runtime_error(_setup.command.front() + " " + why + "; it printed: " + output());
}

}  // namespace support
