#include "Stress/Watchdog.h"

#include <execinfo.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Stress/Verdict.h"
#include "Support/Files.h"

namespace support {

namespace {

constexpr int kPlaceSignal = SIGUSR2;

void printPlace(int /*signal*/) {
  std::array<void*, 40> frames{};
  const int count = ::backtrace(frames.data(), static_cast<int>(frames.size()));
  ::backtrace_symbols_fd(frames.data(), count, STDERR_FILENO);
}

// The signal goes to one thread at a time, so that their places do not mix.
void printPlaces() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string task = entry.path().string();
    report("thread " + entry.path().filename().string() + " \"" + contentsOfFile(task + "/comm") +
           "\" in " + contentsOfFile(task + "/wchan") + ", call " +
           contentsOfFile(task + "/syscall"));
    ::syscall(SYS_tgkill, ::getpid(), std::stoi(entry.path().filename().string()), kPlaceSignal);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
}

}  // namespace

Watchdog::Watchdog(std::chrono::seconds limit) : _limit(limit) {
  struct sigaction action {};
  action.sa_handler = printPlace;
  action.sa_flags = SA_RESTART;
  ::sigaction(kPlaceSignal, &action, nullptr);
  std::array<void*, 1> unused{};
  ::backtrace(unused.data(), 1);  // the first call loads a library
  restart();
  _thread = std::thread([this] { run(); });
}

Watchdog::~Watchdog() {
  _isOver = true;
  _thread.join();
}

void Watchdog::restart() { _start = std::chrono::steady_clock::now().time_since_epoch().count(); }

void Watchdog::run() {
  while (!_isOver) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::chrono::steady_clock::duration start(_start);
    if (std::chrono::steady_clock::now().time_since_epoch() - start < _limit) continue;
    report(currentEpisode() + ": it does not end");
    printPlaces();
    std::abort();
  }
}

}  // namespace support
