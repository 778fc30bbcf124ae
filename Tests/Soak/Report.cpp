#include "Soak/Report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>

#include "Support/ProcessStatus.h"

namespace soak {

namespace {

// After the warm-up the heap may still grow by this much: counters of errors that are new.
constexpr size_t kHeapGrowth = 64 * 1024;
// Freed memory that the allocator keeps, in pieces, for 200 threads.
constexpr size_t kResidentGrowthKiB = 32 * 1024;

// Errors that the devices provoke: where, and which. "Late or silent" is a command whose answer
// does not come in time on purpose, "cut" one instead of whose answer the connection ends.
constexpr std::string_view kAllowed[] = {
    "open: zephal-communication 4",
    "open recorder: zephal-communication 4",
    "open console: zephal-console 2",
    "late or silent: zephal-commchannel 305",
    "late or silent console: zephal-console 2",
    "cut: no error",
    "cut: zephal-communication 2",
    "cut: zephal-communication 5",
    "cut: zephal-commchannel 304",
    "cut console: zephal-console 3",
    "close after cut: no error",
    "close after cut: zephal-communication 2",
    "close recorder after cut: zephal-communication 2",
};

// A device that is away: whatever errno says, a worker tries again.
constexpr std::string_view kAllowedBeginnings[] = {
    "open: no error, errno ", "open recorder: no error, errno ", "open console: POSIX "};

bool isAllowed(std::string_view error) {
  const auto isBeginning = [&](std::string_view text) { return error.starts_with(text); };
  return std::find(std::begin(kAllowed), std::end(kAllowed), error) != std::end(kAllowed) ||
         std::any_of(std::begin(kAllowedBeginnings), std::end(kAllowedBeginnings), isBeginning);
}

__attribute__((format(printf, 2, 3))) void print(std::string* text, const char* format, ...) {
  char buffer[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  *text += buffer;
}

std::string inQuotes(std::string_view text) {
  std::string result = "\"";
  for (const char byte : text) {
    if (byte == '"' || byte == '\\') result += '\\';
    result += static_cast<unsigned char>(byte) < 0x20 ? ' ' : byte;
  }
  return result + "\"";
}

unsigned long long number(uint64_t value) { return value; }

constexpr double kShares[] = {0.5, 0.9, 0.99, 0.999};

template <class List, class Text>
std::string joined(const char* begin, const List& list, const char* end, Text textOfOne) {
  std::string text;
  for (const auto& one : list) text += (text.empty() ? "" : ", ") + textOfOne(one);
  return begin + text + end;
}

}  // namespace

Report::Report(const Options& options, const Tally& tally, const SharedState& state,
               std::vector<Census> censuses, std::string python)
    : _options(options),
      _tally(tally),
      _state(state),
      _censuses(std::move(censuses)),
      _python(std::move(python)) {}

uint64_t Report::sumOf(std::atomic<uint64_t> DeviceState::*field) const {
  uint64_t sum = 0;
  for (const DeviceState& device : _state.devices) sum += device.*field;
  return sum;
}

Damage Report::total() const {
  Damage sum = damageToCommands();
  for (const auto& [place, damage] : _tally.damage()) sum += damage;
  return sum;
}

Damage Report::damageToCommands() const {
  return {sumOf(&DeviceState::lost), sumOf(&DeviceState::doubled), sumOf(&DeviceState::foreign)};
}

// The first count after a tenth of the time; the last one if all were early.
const Census& Report::warm() const {
  const auto isWarm = [&](const Census& census) { return census.seconds >= _options.seconds / 10; };
  const auto found = std::find_if(_censuses.begin() + 1, _censuses.end(), isWarm);
  return found != _censuses.end() ? *found : _censuses.back();
}

void Report::addDamagedCommands(std::vector<std::string>* faults) const {
  for (size_t device = 0; device < kMostDevices; ++device) {
    const std::string evidence = _state.devices[device].evidence.data();
    if (evidence.empty()) continue;
    faults->push_back("commands arrived damaged at device " + std::to_string(device) + ": " +
                      evidence);
  }
}

void Report::addGrowth(std::vector<std::string>* faults) const {
  const Census& start = _censuses.front();
  addFirstAbove(start.descriptors, "descriptors", &Census::descriptors, faults);
  addFirstAbove(start.threads, "threads", &Census::threads, faults);
  if (!support::isMemoryComparable()) return;
  addFirstAbove(warm().heapBytes + kHeapGrowth, "bytes of heap", &Census::heapBytes, faults);
  addFirstAbove(warm().residentKiB + kResidentGrowthKiB, "KiB resident", &Census::residentKiB,
                faults);
}

// The first count after which there is more than may be until the end.
void Report::addFirstAbove(size_t bound, const char* what, size_t Census::*field,
                           std::vector<std::string>* faults) const {
  if (_censuses.back().*field <= bound) return;
  const auto isGood = [&](const Census& census) { return census.*field <= bound; };
  const auto first = std::find_if(_censuses.rbegin(), _censuses.rend(), isGood).base();
  faults->push_back("after " + std::to_string(static_cast<int>(first->seconds)) +
                    " s: " + std::to_string((*first).*field) + " " + what + ", more than " +
                    std::to_string(bound));
}

std::vector<std::string> Report::faults() const {
  std::vector<std::string> faults = _tally.failures();
  if (_tally.failureCount() > faults.size()) {
    faults.push_back("and " + std::to_string(_tally.failureCount() - faults.size()) + " more");
  }
  addDamagedCommands(&faults);
  for (const auto& [name, count] : _tally.errors()) {
    if (!isAllowed(name))
      faults.push_back("not allowed, " + std::to_string(count) + " times: " + name);
  }
  addGrowth(&faults);
  return faults;
}

std::vector<Report::Row> Report::rows() const {
  const Damage all = total();
  return {
      {"sessions", "sessions", _tally.sessions},
      {"commands", "commands", _tally.commands},
      {"commands that devices received", "commandsReceived", sumOf(&DeviceState::commands)},
      {"bytes that devices sent", "bytesSent", sumOf(&DeviceState::bytesSent)},
      {"bytes that callers and recorders got", "bytesReceived", _tally.bytesReceived},
      {"connections that devices cut", "cuts", sumOf(&DeviceState::cuts)},
      {"sessions read to the last byte", "drained", _tally.drained},
      {"bytes lost", "lost", all.lost},
      {"bytes doubled", "doubled", all.doubled},
      {"bytes foreign", "foreign", all.foreign},
      {"logs", "logs", _tally.logs},
      {"lines, prompts and commands in logs", "logTokens", _tally.logLines},
      {"log lines lost", "logLinesLost", _tally.logLinesLost},
      {"log lines torn", "logLinesTorn", _tally.logLinesTorn},
      {"messages of the library", "messages", _tally.messages},
  };
}

std::string Report::table() const {
  std::string text;
  print(&text, "%d stacks, %.0f seconds, seed %llu\n\n", _options.stacks, _options.seconds,
        number(_options.seed));
  print(&text, "| What | How much |\n|---|---:|\n");
  for (const Row& row : rows()) print(&text, "| %s | %llu |\n", row.name, number(row.value));
  text += errorTable() + latencyTable() + restTable();
  print(&text, "\ndevices: %llu KiB resident\n", number(_state.devicesResidentKiB));
  return _python.empty() ? text : text + "\nPython: " + _python + "\n";
}

std::string Report::errorTable() const {
  std::string text = "\n| Error | Times |\n|---|---:|\n";
  for (const auto& [name, count] : _tally.errors()) {
    print(&text, "| %s | %llu |\n", name.c_str(), number(count));
  }
  return text;
}

std::string Report::latencyTable() const {
  std::string text = "\n| Commands within | Milliseconds |\n|---|---:|\n";
  for (const double share : kShares) {
    print(&text, "| %.1f %% | %.2f |\n", share * 100, _tally.latencies.milliseconds(share));
  }
  print(&text, "| all %llu | %.2f |\n", number(_tally.latencies.count()),
        _tally.latencies.longestMilliseconds());
  return text;
}

std::string Report::restTable() const {
  std::string text =
      "\n| At rest | Seconds | Resident KiB | Heap bytes | Threads | Descriptors |\n"
      "|---|---:|---:|---:|---:|---:|\n";
  const std::pair<const char*, const Census*> moments[] = {
      {"start", &_censuses.front()}, {"warm", &warm()}, {"end", &_censuses.back()}};
  for (const auto& [name, census] : moments) {
    print(&text, "| %s | %.0f | %zu | %zu | %zu | %zu |\n", name, census->seconds,
          census->residentKiB, census->heapBytes, census->threads, census->descriptors);
  }
  return text;
}

std::string Report::json() const {
  std::string text = "{";
  print(&text, "\"stacks\": %d, \"seconds\": %.1f, \"seed\": %llu, ", _options.stacks,
        _options.seconds, number(_options.seed));
  for (const Row& row : rows()) print(&text, "\"%s\": %llu, ", row.key, number(row.value));
  const auto errors = _tally.errors();
  text += "\"errors\": " + joined("{", errors, "}", [](const auto& error) {
            return inQuotes(error.first) + ": " + std::to_string(error.second);
          });
  text += ", \"latencyMilliseconds\": {";
  for (const double share : kShares) {
    print(&text, "\"%g\": %.3f, ", share, _tally.latencies.milliseconds(share));
  }
  print(&text, "\"1\": %.3f}, \"counts\": ", _tally.latencies.longestMilliseconds());
  text += jsonOfCounts() + ", \"faults\": " + joined("[", faults(), "]", inQuotes);
  return text + ", \"python\": " + (_python.empty() ? "null" : _python) + "}\n";
}

std::string Report::jsonOfCounts() const {
  return joined("[", _censuses, "]", [](const Census& census) {
    std::string text;
    print(&text, "{\"seconds\": %.1f, \"residentKiB\": %zu, \"heapBytes\": %zu, ", census.seconds,
          census.residentKiB, census.heapBytes);
    print(&text, "\"threads\": %zu, \"descriptors\": %zu}", census.threads, census.descriptors);
    return text;
  });
}

}  // namespace soak
