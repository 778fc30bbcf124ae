// Sends commands to the device that a URL names, and shows the conversation as a terminal would.
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kSuccess = 0;
constexpr int kConversationFailed = 1;
constexpr int kBadUsage = 2;

constexpr const char* kHelp =
    R"(usage: talk URL [OPTION]... COMMAND...

Sends each COMMAND to a device and prints its response, delimiter included.

URL   uart:///dev/ttyUSB0?baud=115200&mode=8N1, tcp://HOST:PORT or unix:///PATH

  --delimiter D  where a response ends, such as the device's prompt ["> "]
  --timeout S    seconds to wait for each response, or "forever" [5]
  --settle S     seconds of silence before the first command, in which whatever
                 the device says by itself is printed and done with [0.3]
  --ecid N       the chip identifier expected in the prompt; another one ends
                 the conversation
  --filter T     cuts each occurrence of a text out of the responses
  --filter-hex H the same for bytes in hexadecimal; both may be given several times
  --read-ahead   takes what the device says at all times, on a thread of its own
  --log FILE     logs the conversation: each command, and its response as it is printed
  --raw-log FILE logs what really passes, in the pieces in which it passes
  --help         print this

Exit status: 0 if every command was answered, 1 if not, 2 for a wrong call.
)";

struct Call {
  std::string url;
  std::string delimiter = "> ";
  ZPKNumber timeout = 5;
  ZPKNumber settle = 0.3;
  std::optional<ZPKNumber> ecid;
  std::vector<std::string> filters;
  std::vector<std::string> hexFilters;
  bool readsAhead = false;
  std::optional<std::string> log;
  std::optional<std::string> rawLog;
  std::vector<std::string> commands;
};

std::optional<ZPKNumber> secondsFrom(std::string_view text) {
  if (text == "forever") return ZEPHAL_COMMUNICATION_TIME_FOREVER;
  double seconds = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (failure != std::errc() || end != text.data() + text.size() || !(seconds >= 0)) return {};
  return seconds;
}

std::optional<ZPKNumber> identifierFrom(std::string_view text) {
  const int base = text.starts_with("0x") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  uint64_t identifier = 0;
  const auto [end, failure] =
      std::from_chars(text.data(), text.data() + text.size(), identifier, base);
  if (failure != std::errc() || end != text.data() + text.size()) return {};
  return identifier;
}

// Each stores an option's value; false if it is no such option or the value is none of its kind.
bool setTextOption(Call* call, std::string_view name, const char* value) {
  if (name == "--delimiter")
    call->delimiter = value;
  else if (name == "--filter")
    call->filters.emplace_back(value);
  else if (name == "--filter-hex")
    call->hexFilters.emplace_back(value);
  else if (name == "--log")
    call->log = value;
  else if (name == "--raw-log")
    call->rawLog = value;
  else
    return false;
  return true;
}

bool setNumberOption(Call* call, std::string_view name, const char* value) {
  const std::optional<ZPKNumber> number =
      name == "--ecid" ? identifierFrom(value) : secondsFrom(value);
  if (!number.has_value()) return false;
  if (name == "--ecid")
    call->ecid = number;
  else if (name == "--timeout")
    call->timeout = *number;
  else if (name == "--settle")
    call->settle = *number;
  else
    return false;
  return true;
}

// Takes the option at `next`, with its value if it has one.
bool takeOption(Call* call, char** arguments, int* next) {
  const std::string_view name = arguments[(*next)++];
  if (name == "--read-ahead") {
    call->readsAhead = true;
    return true;
  }
  // The last argument is followed by a null.
  const char* const value = arguments[*next];
  if (value == nullptr) return false;
  ++*next;
  return setTextOption(call, name, value) || setNumberOption(call, name, value);
}

std::optional<Call> callFrom(int count, char** arguments) {
  Call call;
  int next = 1;
  if (next < count && arguments[next][0] != '-') call.url = arguments[next++];
  while (next < count && std::string_view(arguments[next]).starts_with("--")) {
    if (std::string_view(arguments[next]) == "--") {
      ++next;
      break;
    }
    if (!takeOption(&call, arguments, &next)) return std::nullopt;
  }
  if (call.url.empty() && next < count) call.url = arguments[next++];
  call.commands.assign(arguments + next, arguments + count);
  if (call.url.empty() || call.commands.empty()) return std::nullopt;
  return call;
}

// The library's log is not shown, since fail prints every failure. One without an error, such as
// that of a log file that cannot be made, says in the log's last line why.
std::mutex logMutex;
std::string lastLogLine = "no connection";

void keepLogLine(int /*level*/, std::string_view line) {
  const std::lock_guard guard(logMutex);
  lastLogLine = line;
}

// Test the result, not the slot: a connection that is refused, for one, leaves no error.
int fail(const Call& call, const std::string& what, const ZPKErrorPtr& error) {
  const std::lock_guard guard(logMutex);
  std::fprintf(stderr, "talk: %s: %s: %s\n", call.url.c_str(), what.c_str(),
               error == nullptr ? lastLogLine.c_str() : error->description().c_str());
  return kConversationFailed;
}

void print(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// Takes what the device says before it is asked, until it is silent, so that no greeting is taken
// for the first response. An empty delimiter lets all bytes through. A device that never stops
// talking is listened to for as long as a response may take.
bool settle(ZPKCommStack& stack, const Call& call, ZPKErrorPtr* error) {
  using Clock = std::chrono::steady_clock;
  const std::chrono::duration<double> limit(call.timeout.doubleValue());
  const Clock::time_point start = Clock::now();
  stack.setTimeoutIsException(false, error);
  ZPKDataPtr greeting;
  do {
    greeting = stack.readDataWithTimeout(call.settle, ZPKData::data(), error);
    if (greeting == nullptr) return false;
    print(ZPKDataToString(greeting));
  } while (greeting->length() > 0 && Clock::now() - start < limit);
  return stack.setTimeoutIsException(true, error);
}

bool configure(ZPKCommStack& stack, const Call& call, ZPKErrorPtr* error) {
  return stack.setDelimiter(call.delimiter, error) &&
         stack.enableECIDSwapDetectionWithECID(call.ecid, error) &&
         stack.setReadFilters(call.filters, error) &&
         stack.setReadFiltersHex(call.hexFilters, error) &&
         stack.setActiveChannelOnOff(call.readsAhead, error) &&
         stack.setLogFilePath(call.log, call.rawLog, error);
}

int converse(const Call& call) {
  ZPKErrorPtr error;
  const ZPKCommStackPtr stack = ZPKCommStack::init();
  if (!configure(*stack, call, &error) || !stack->createStackWithURL(call.url, &error) ||
      !stack->openWithTimeout(call.timeout, &error)) {
    return fail(call, "cannot open", error);
  }
  if (!settle(*stack, call, &error)) return fail(call, "greeting", error);
  for (const std::string& command : call.commands) {
    const std::optional<std::string> response =
        stack->sendCommandString(command, call.timeout, &error);
    if (!response.has_value()) return fail(call, command, error);
    // A device that echoes shows the command itself.
    if (!response->starts_with(command)) print(command + "\n");
    print(*response);
  }
  print("\n");
  if (!stack->close(&error)) return fail(call, "cannot close", error);
  return kSuccess;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--help") {
    print(kHelp);
    return kSuccess;
  }
  const std::optional<Call> call = callFrom(count, arguments);
  if (!call.has_value()) {
    std::fputs(kHelp, stderr);
    return kBadUsage;
  }
  ZPKLoggingSetSink(keepLogLine);
  return converse(*call);
}
