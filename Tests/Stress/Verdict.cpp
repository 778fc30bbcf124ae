#include "Stress/Verdict.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "Support/CheckedCalls.h"

namespace support {

namespace {

std::atomic<const char*> currentName{"none"};
std::atomic<uint64_t> currentSeed{0};
int output = STDOUT_FILENO;

void printEpisode() {
  ::dprintf(output, "episode %s, seed %llu\n", currentName.load(),
            static_cast<unsigned long long>(currentSeed.load()));
}

}  // namespace

void beginEpisode(const char* name, uint64_t seed) {
  currentName = name;
  currentSeed = seed;
}

std::string currentEpisode() {
  return std::string("episode ") + currentName.load() + ", seed " + std::to_string(currentSeed);
}

// What the sanitizers call before they print what they have found. They want no memory meanwhile.
extern "C" void __tsan_on_report(const void* /*report*/) { printEpisode(); }
extern "C" void __asan_on_error() { printEpisode(); }

void report(const std::string& line) { ::dprintf(output, "%s\n", line.c_str()); }

void require(bool holds, const std::string& what, const ZPKErrorPtr& error) {
  if (holds) return;
  report(
      currentEpisode() + ": " + what +
      (error == nullptr ? "" : ": " + std::to_string(error->code()) + " " + error->description()));
  std::abort();
}

void nameEpisodeOfExceptions() {
  static const std::terminate_handler handler = std::get_terminate();
  std::set_terminate([] {
    report(currentEpisode() + ": an exception");
    handler();
  });
}

void keepStandardOutput() {
  output = checked(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "fcntl");
  const int nowhere = checked(::open("/dev/null", O_WRONLY | O_CLOEXEC), "open");
  checked(::dup2(nowhere, STDOUT_FILENO), "dup2");
  ::close(nowhere);
}

}  // namespace support
