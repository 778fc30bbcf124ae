// Sends commands to the device that a URL names, and shows the conversation as a terminal would.
#include <ZephalIO/ZephalIO.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Common.h"

namespace {

constexpr const char* kHelp =
    R"(usage: talk URL [OPTION]... COMMAND...

Sends each COMMAND to a device and prints its response, including the delimiter.

URL   uart:///dev/ttyUSB0?baud=115200&mode=8N1, tcp://HOST:PORT or unix:///PATH

  --delimiter D  where a response ends, such as the device's prompt ["> "]
  --timeout S    seconds to wait for each response, or "forever" [5]
  --settle S     seconds of silence to wait for before the first command [0.3];
                 whatever the device says until then is printed, and one that
                 never stops is listened to for as long as --timeout says
  --ecid N       the chip identifier expected in the prompt; a different one
                 ends the conversation
  --filter T     removes each occurrence of a text from the responses
  --filter-hex H the same for bytes in hexadecimal; both may be given several times
  --read-ahead   reads from the device at all times, on a thread of its own
  --log FILE     logs the conversation: each command, and its response as printed
  --raw-log FILE logs the raw bytes, in the pieces in which they arrive and leave
  --help         print this
  --version      print the version

Options go before the first COMMAND; put "--" before a COMMAND that begins with "-".

Exit status: 0 if every command was answered, 1 if not, 2 for wrong usage.
)";

struct Call {
  std::string url;
  std::string delimiter = "> ";
  double timeout = 5;
  double settle = 0.3;
  std::optional<ZPKNumber> ecid;
  std::vector<std::string> filters;
  std::vector<std::string> hexFilters;
  bool readsAhead = false;
  std::optional<std::string> log;
  std::optional<std::string> rawLog;
  std::vector<std::string> commands;
};

std::optional<uint64_t> identifierFrom(std::string_view text) {
  const int base = text.starts_with("0x") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  uint64_t identifier = 0;
  const auto [end, failure] =
      std::from_chars(text.data(), text.data() + text.size(), identifier, base);
  if (failure != std::errc() || end != text.data() + text.size()) return {};
  return identifier;
}

void takeOption(int option, const CommandLine& line, Call* call) {
  switch (option) {
    case 'd': call->delimiter = line.text(); break;
    case 's': call->settle = line.seconds(); break;
    case 'f': call->filters.push_back(line.text()); break;
    case 'x': call->hexFilters.push_back(line.text()); break;
    case 'a': call->readsAhead = true; break;
    case 'l': call->log = line.text(); break;
    case 'r': call->rawLog = line.text(); break;
    case 't':
      if (line.text() == "forever") {
        call->timeout = ZEPHAL_COMMUNICATION_TIME_FOREVER;
      } else {
        call->timeout = line.seconds();
      }
      break;
    case 'e': {
      const std::optional<uint64_t> identifier = identifierFrom(line.text());
      if (!identifier.has_value()) line.refuse("--ecid " + line.text() + ": not an identifier");
      call->ecid = *identifier;
      break;
    }
  }
}

Call callFrom(int count, char** words) {
  CommandLine line(count, words, kHelp,
                   {{"delimiter", required_argument, nullptr, 'd'},
                    {"timeout", required_argument, nullptr, 't'},
                    {"settle", required_argument, nullptr, 's'},
                    {"ecid", required_argument, nullptr, 'e'},
                    {"filter", required_argument, nullptr, 'f'},
                    {"filter-hex", required_argument, nullptr, 'x'},
                    {"read-ahead", no_argument, nullptr, 'a'},
                    {"log", required_argument, nullptr, 'l'},
                    {"raw-log", required_argument, nullptr, 'r'}});
  Call call;
  // Options go on either side of the URL, but not after a command: those words are for the device.
  while (const int option = line.nextOption()) takeOption(option, line, &call);
  call.url = line.word("URL");
  while (const int option = line.nextOption()) takeOption(option, line, &call);
  call.commands = line.words("COMMAND");
  return call;
}

// Test the result, not the slot: a refused connection, for one, leaves no error.
int fail(const Call& call, const std::string& what, const std::string& reason) {
  std::fprintf(stderr, "talk: %s: %s: %s\n", call.url.c_str(), what.c_str(), reason.c_str());
  return kRefused;
}

void print(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// Takes what the device says unasked, until it is silent, so that no greeting is taken for the
// first response. An empty delimiter lets all bytes through. A device that never stops talking is
// listened to for as long as a response may take, which can be forever.
bool settle(ZPKCommStack& stack, const Call& call, ZPKErrorPtr* error) {
  using Clock = std::chrono::steady_clock;
  const bool isForever = call.timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER;
  const std::chrono::duration<double> limit(call.timeout);
  const Clock::time_point start = Clock::now();
  stack.setTimeoutIsException(false, error);
  ZPKDataPtr greeting;
  do {
    greeting = stack.readDataWithTimeout(call.settle, ZPKData::data(), error);
    if (greeting == nullptr) return false;
    print(ZPKDataToString(greeting));
  } while (greeting->length() > 0 && (isForever || Clock::now() - start < limit));
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

int converse(const Call& call, const QuietLog& log) {
  ZPKErrorPtr error;
  const ZPKCommStackPtr stack = ZPKCommStack::init();
  if (!configure(*stack, call, &error) || !stack->createStackWithURL(call.url, &error) ||
      !stack->openWithTimeout(call.timeout, &error)) {
    const int number = errno;
    return fail(call, "cannot open", log.reasonOf(error, number) + hintAt(call.url));
  }
  if (!settle(*stack, call, &error)) return fail(call, "greeting", log.reasonOf(error, errno));
  for (const std::string& command : call.commands) {
    const std::optional<std::string> response =
        stack->sendCommandString(command, call.timeout, &error);
    if (!response.has_value()) return fail(call, command, log.reasonOf(error, errno));
    // If the device echoes, the response begins with the command.
    if (!response->starts_with(command)) print(command + "\n");
    print(*response);
  }
  print("\n");
  if (!stack->close(&error)) return fail(call, "cannot close", log.reasonOf(error, errno));
  return kDone;
}

}  // namespace

int main(int count, char** words) {
  const Call call = callFrom(count, words);
  // The library's log is not shown, since fail prints every failure.
  const QuietLog log;
  try {
    return converse(call, log);
  } catch (const std::out_of_range&) {
    return fail(call, "cannot open", kModeIsTooShort);
  }
}
