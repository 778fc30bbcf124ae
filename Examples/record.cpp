// Records what a device says unasked, until it is interrupted.
#include <ZephalIO/ZephalIO.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "Common.h"

namespace {

constexpr const char* kHelp =
    R"(usage: record [OPTION]... URL RAW_LOG CUT_LOG

Records what a device says until it is interrupted (SIGINT or SIGTERM), then prints
how much arrived, in bytes and in complete lines. Sends nothing. A device that goes
away is reopened as soon as it is back.

URL      uart:///dev/ttyUSB0?baud=115200&mode=8N1, tcp://HOST:PORT or unix:///PATH
RAW_LOG  the file for the raw bytes, in the pieces in which they arrive
CUT_LOG  the file for the bytes split at the delimiter, one entry per line, however
         many pieces it came in; an incomplete line, such as the last one or one
         that the device began before it went away, is left out

  --delimiter D  where a line ends [a line feed]
  --help         print this
  --version      print the version

Both files are appended to. Exit status: 0 if the device was there to the end, 1 if
it was not or nothing could be recorded, 2 for wrong usage.
)";

// Only isOpen tells that a device has gone away.
constexpr int kLookEveryMilliseconds = 100;
constexpr int kOpenEveryMilliseconds = 500;

struct Call {
  std::string url;
  std::string rawLog;
  std::string cutLog;
  std::string delimiter = "\n";
};

Call callFrom(int count, char** words) {
  Call call;
  CommandLine line(count, words, kHelp, {{"delimiter", required_argument, nullptr, 'd'}});
  while (line.nextOption() != 0) call.delimiter = line.text();
  if (call.delimiter.empty()) line.refuse("--delimiter: must not be empty");
  call.url = line.word("URL");
  call.rawLog = line.word("RAW_LOG");
  call.cutLog = line.word("CUT_LOG");
  line.end();
  return call;
}

std::atomic<bool> isInterrupted{false};

void interrupt(int /*signal*/) { isInterrupted = true; }

// A second signal ends the program at once, in case a connection takes its time to fail.
void awaitInterrupts() {
  struct sigaction action {};
  action.sa_handler = interrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

void say(const Call& call, const std::string& what) {
  std::fprintf(stderr, "record: %s: %s\n", call.url.c_str(), what.c_str());
}

struct Count {
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> lines{0};
};

/// Counts one connection's lines, whose delimiters can be split between pieces too.
class LineCounter {
 public:
  LineCounter(std::string delimiter, Count* count)
      : _delimiter(std::move(delimiter)), _count(count) {}

  void add(std::string_view piece) {
    _count->bytes += piece.size();
    _held += piece;
    size_t next = 0;
    for (size_t at = _held.find(_delimiter); at != std::string::npos;
         at = _held.find(_delimiter, next)) {
      ++_count->lines;
      next = at + _delimiter.size();
    }
    // The rest may end with the beginning of a delimiter.
    _held.erase(0, _held.size() - std::min(_held.size() - next, _delimiter.size() - 1));
  }

 private:
  const std::string _delimiter;
  Count* const _count;
  std::string _held;
};

// The recording stack returns no data, so the traffic is counted below it.
ZPKDataChannelPtr countedChannel(const Call& call, Count* count, ZPKErrorPtr* error) {
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(call.url, error);
  if (channel == nullptr) return nullptr;
  const auto counter = std::make_shared<LineCounter>(call.delimiter, count);
  const ZPKDataTransformerPtr counting = createBlockTransformer(
      [counter](ZPKMutableData* piece) { counter->add(piece->view()); }, [] {}, error);
  return createChannelTransformer(channel, {counting}, {}, error);
}

// A stack for one connection; null, with the reason, if the device is not there. Each connection
// has a stack of its own: an old one would put half a line from before a hang-up in front of the
// next line.
ZPKCommLoggerStackPtr openRecorder(const Call& call, const QuietLog& log, Count* count,
                                   std::string* reason) {
  ZPKCommLoggerStackPtr recorder = ZPKCommLoggerStack::init();
  recorder->setDelimiter(call.delimiter);
  recorder->setLogFilePath(call.cutLog, call.rawLog);
  ZPKErrorPtr error;
  if (recorder->createStackWithBaseChannel(countedChannel(call, count, &error), &error) &&
      recorder->open(&error)) {
    return recorder;
  }
  const int number = errno;
  *reason = log.reasonOf(error, number);
  return nullptr;
}

// Reopens a device that has gone away as often as necessary. False if it was away at the end.
bool recordUntilInterrupted(ZPKCommLoggerStackPtr recorder, const Call& call, const QuietLog& log,
                            Count* count) {
  std::string reason;
  while (!isInterrupted) {
    ::poll(nullptr, 0, recorder != nullptr ? kLookEveryMilliseconds : kOpenEveryMilliseconds);
    if (recorder != nullptr && recorder->isOpen() == 1) continue;
    if (recorder != nullptr) say(call, "gone, waiting for it");
    recorder = nullptr;  // and its logs are complete
    recorder = openRecorder(call, log, count, &reason);
    if (recorder != nullptr) say(call, "recording again");
  }
  return recorder != nullptr && recorder->close();
}

int record(const Call& call, const QuietLog& log) {
  Count count;
  std::string reason;
  ZPKCommLoggerStackPtr recorder = openRecorder(call, log, &count, &reason);
  if (recorder == nullptr) {
    say(call, "cannot record: " + reason + hintAt(call.url));
    return kRefused;
  }
  awaitInterrupts();
  say(call, "recording");
  const bool wasThere = recordUntilInterrupted(std::move(recorder), call, log, &count);
  std::printf("%llu bytes, %llu lines\n", static_cast<unsigned long long>(count.bytes),
              static_cast<unsigned long long>(count.lines));
  return wasThere ? kDone : kRefused;
}

}  // namespace

int main(int count, char** words) {
  const Call call = callFrom(count, words);
  // The library's log is not shown, since the program itself reports what fails.
  const QuietLog log;
  try {
    return record(call, log);
  } catch (const std::out_of_range&) {
    say(call, std::string("cannot record: ") + kModeIsTooShort);
    return kRefused;
  }
}
