// Records what a device says by itself, until it is interrupted.
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr int kSuccess = 0;
constexpr int kRecordingFailed = 1;
constexpr int kBadUsage = 2;

constexpr const char* kHelp =
    R"(usage: record [--delimiter D] URL RAW_LOG CUT_LOG

Records what a device says until it is interrupted (SIGINT or SIGTERM), then prints
how much that was. Sends nothing. A device that goes away is opened again as soon as
it is back.

URL      uart:///dev/ttyUSB0?baud=115200&mode=8N1, tcp://HOST:PORT or unix:///PATH
RAW_LOG  the file that takes the bytes as they come, in the pieces in which they come
CUT_LOG  the file that takes them cut at the delimiter, one entry for each line,
         however many pieces it came in; a last line without its end is left out

  --delimiter D  where a line ends [a line feed]
  --help         print this

Both files grow at their end. Exit status: 0 if the device was there to the end, 1 if
it was not or nothing could be recorded, 2 for a wrong call.
)";

// Nothing but isOpen tells that a device has gone.
constexpr int kLookEveryMilliseconds = 100;
constexpr int kOpenEveryMilliseconds = 500;

struct Call {
  std::string url;
  std::string rawLog;
  std::string cutLog;
  std::string delimiter = "\n";
};

std::optional<Call> callFrom(int count, char** arguments) {
  Call call;
  int next = 1;
  if (next < count && std::string_view(arguments[next]) == "--delimiter") {
    if (next + 1 == count) return std::nullopt;
    call.delimiter = arguments[next + 1];
    next += 2;
  }
  if (count - next != 3 || arguments[next][0] == '-') return std::nullopt;
  call.url = arguments[next];
  call.rawLog = arguments[next + 1];
  call.cutLog = arguments[next + 2];
  return call;
}

std::atomic<bool> isInterrupted{false};

void interrupt(int /*signal*/) { isInterrupted = true; }

// A second signal ends the program at once, should a connection take its time to fail.
void awaitInterrupts() {
  struct sigaction action {};
  action.sa_handler = interrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

/// Takes over the library's log and keeps its last line: a failure that has no error of its own,
/// such as a log file that cannot be made, says there why.
class LastLogLine {
 public:
  LastLogLine() {
    ZPKLoggingSetSink([this](int /*level*/, std::string_view line) {
      const std::lock_guard guard(_mutex);
      _line = line;
    });
  }
  LastLogLine(const LastLogLine&) = delete;
  LastLogLine& operator=(const LastLogLine&) = delete;
  ~LastLogLine() { ZPKLoggingSetSink(nullptr); }

  std::string text() const {
    const std::lock_guard guard(_mutex);
    return _line;
  }

 private:
  mutable std::mutex _mutex;
  std::string _line = "no connection";
};

void say(const Call& call, const std::string& what) {
  std::fprintf(stderr, "record: %s: %s\n", call.url.c_str(), what.c_str());
}

struct Count {
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> lines{0};

  void add(std::string_view piece) {
    bytes += piece.size();
    lines += static_cast<uint64_t>(std::count(piece.begin(), piece.end(), '\n'));
  }
};

// The recording stack hands nothing out, so what passes is counted below it.
ZPKDataChannelPtr countedChannel(const std::string& url, Count* count, ZPKErrorPtr* error) {
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(url, error);
  if (channel == nullptr) return nullptr;
  const ZPKDataTransformerPtr counter = createBlockTransformer(
      [count](ZPKMutableData* piece) { count->add(piece->view()); }, [] {}, error);
  return createChannelTransformer(channel, {counter}, {}, error);
}

// Opens a device that has gone as often as it takes. Opening also writes out what was still to go
// into the logs.
void recordUntilInterrupted(ZPKCommLoggerStack& recorder, const Call& call) {
  bool isThere = true;
  while (!isInterrupted) {
    ::poll(nullptr, 0, isThere ? kLookEveryMilliseconds : kOpenEveryMilliseconds);
    if (recorder.isOpen() == 1) continue;
    if (isThere) say(call, "gone, waiting for it");
    isThere = recorder.open();
    if (isThere) say(call, "recording again");
  }
}

int record(const Call& call) {
  const LastLogLine lastLogLine;
  Count count;
  ZPKErrorPtr error;
  const ZPKCommLoggerStackPtr recorder = ZPKCommLoggerStack::init();
  recorder->setDelimiter(call.delimiter);
  recorder->setLogFilePath(call.cutLog, call.rawLog);
  if (!recorder->createStackWithBaseChannel(countedChannel(call.url, &count, &error), &error) ||
      !recorder->open(&error)) {
    say(call, "cannot record: " + (error == nullptr ? lastLogLine.text() : error->description()));
    return kRecordingFailed;
  }
  awaitInterrupts();
  say(call, "recording");
  recordUntilInterrupted(*recorder, call);
  // Closes the logs too; it fails if the device is away.
  const bool wasThere = recorder->close();
  std::printf("%llu bytes, %llu lines\n", static_cast<unsigned long long>(count.bytes),
              static_cast<unsigned long long>(count.lines));
  return wasThere ? kSuccess : kRecordingFailed;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--help") {
    std::fputs(kHelp, stdout);
    return kSuccess;
  }
  const std::optional<Call> call = callFrom(count, arguments);
  if (!call.has_value()) {
    std::fputs(kHelp, stderr);
    return kBadUsage;
  }
  return record(*call);
}
