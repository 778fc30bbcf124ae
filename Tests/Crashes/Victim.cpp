#include "Crashes/Victim.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "RealPrograms/Support/RealProgram.h"
#include "Support/CheckedCalls.h"

namespace support {
namespace {

// Looks ten times a millisecond, since there are a thousand victims to wait for.
bool waitClosely(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

Progress* sharedProgress() {
  void* const memory =
      ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return new (memory) Progress;
}

[[noreturn]] void runVictim(const std::function<void(Progress&)>& run, Progress& progress,
                            const std::string& folder) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setenv("TMPDIR", folder.c_str(), 1);
  std::thread([&progress] {
    for (;; ++progress.ticks) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }).detach();
  try {
    run(progress);
  } catch (const std::exception& exception) {
    std::cerr << "the process that logs: " << exception.what() << std::endl;
    ::_exit(1);
  }
  ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

}  // namespace

Victim::Victim(const std::function<void(Progress&)>& run) : _progress(sharedProgress()) {
  _process = checked(::fork(), "fork");
  if (_process == 0) runVictim(run, *_progress, _folder.path());
}

Victim::~Victim() {
  kill();
  ::munmap(_progress, sizeof(Progress));
}

bool Victim::waitUntilLogged(uint32_t count) {
  siginfo_t end{};
  const bool isWaitOver = waitClosely([&] {
    ::waitid(P_PID, static_cast<id_t>(_process), &end, WEXITED | WNOHANG | WNOWAIT);
    return _progress->logged >= count || end.si_pid != 0;
  });
  return isWaitOver && _progress->logged >= count;
}

void Victim::kill() {
  if (_process == -1) return;
  ::kill(_process, SIGKILL);
  waitForEnd();
}

int Victim::end() {
  _progress->isToEnd = true;
  return waitForEnd();
}

int Victim::waitForEnd() {
  int status = 0;
  const pid_t process = std::exchange(_process, -1);
  const auto hasEnded = [&] { return ::waitpid(process, &status, WNOHANG) == process; };
  if (!waitClosely(hasEnded)) {
    ADD_FAILURE() << "the process does not end";
    ::kill(process, SIGKILL);
    ::waitpid(process, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace support
