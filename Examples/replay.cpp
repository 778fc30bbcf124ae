// Plays a raw log, as talk --raw-log and record write it, in place of the device that it was
// recorded from.
#include <ZephalSimulator/SimulatedDevice.h>
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <exception>
#include <string>

#include "Common.h"

namespace {

constexpr const char* kHelp =
    R"(usage: replay [OPTION]... RAW_LOG

Plays the device of a raw log: what was sent to it is answered as it was then, in
the order of the log or in any other. Prints its URL, and each command that is not in
the log, which it does not answer. Runs until it is interrupted (SIGINT or SIGTERM).
Only this machine can reach it.

  --terminal LINK  puts a symbolic link to a pseudo-terminal there, for "uart://LINK"
  --tcp PORT       listens on this port [a free one, unless another place is given]
  --unix PATH      listens on a unix socket there
  --prompt P       the device's prompt, if it sends it apart from what comes before it:
                   without this, an empty line may come between the two
  --crlf           sends CR LF for each line break, which the log does not tell apart
  --pauses         sends each piece as long after the one before it as it came then
  --help           print this
  --version        print the version

Exit status: 0, 1 if the log cannot be played or the place cannot be had, 2 for wrong
usage.
)";

struct Call {
  zephal::DevicePlace place = zephal::DeviceKind::kTCP;
  zephal::RawLogOptions options;
  std::string log;
};

Call callFrom(int count, char** words) {
  using zephal::DevicePlace;
  CommandLine line(count, words, kHelp,
                   {{"terminal", required_argument, nullptr, 't'},
                    {"tcp", required_argument, nullptr, 'p'},
                    {"unix", required_argument, nullptr, 'u'},
                    {"prompt", required_argument, nullptr, 'd'},
                    {"crlf", no_argument, nullptr, 'c'},
                    {"pauses", no_argument, nullptr, 's'}});
  Call call;
  while (const int option = line.nextOption()) {
    switch (option) {
      case 't': call.place = DevicePlace::terminalAt(line.text()); break;
      case 'p': call.place = DevicePlace::tcpAt(line.integer(0, 65535)); break;
      case 'u': call.place = DevicePlace::unixAt(line.text()); break;
      case 'd': call.options.prompt = line.text(); break;
      case 'c': call.options.lineEnd = "\r\n"; break;
      case 's': call.options.keepsPauses = true; break;
    }
  }
  call.log = line.word("RAW_LOG");
  line.end();
  return call;
}

// Prints the commands that are not in the log as they come, until a signal ends the program.
void watch(const zephal::SimulatedDevice& device, const sigset_t& signals) {
  constexpr timespec kLookEvery{0, 100 * 1000 * 1000};
  size_t printed = 0;
  for (bool ends = false; !ends;) {
    ends = ::sigtimedwait(&signals, nullptr, &kLookEvery) > 0;
    const auto unknown = device.unknownCommands();
    for (; printed < unknown.size(); ++printed) {
      std::printf("not in the log: %s\n", printable(unknown[printed]).c_str());
    }
    std::fflush(stdout);
  }
}

}  // namespace

int main(int count, char** words) {
  const Call call = callFrom(count, words);
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM}) ::sigaddset(&signals, number);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    const zephal::SimulatedDevice device(
        call.place, zephal::DeviceRecording::fromRawLog(call.log, call.options));
    std::printf("%s\n", device.url().c_str());
    watch(device, signals);
    return kDone;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "replay: %s\n", failure.what());
    return kRefused;
  }
}
