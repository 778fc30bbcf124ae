// The console against the stack: what asking and expecting cost beside the work that both do.
#include <ZephalConsole/Console.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "Stack.h"

namespace {

using Patterns = std::vector<zephal::Pattern>;

constexpr size_t kCommands = 10000;
constexpr size_t kMebi = 1024 * 1024;
constexpr size_t kLong = 16 * kMebi;
constexpr size_t kQuarter = kLong / 4;
constexpr size_t kWidth = 80;
constexpr size_t kLines = kLong / kWidth;

void expect(bool condition) {
  if (!condition) std::exit(1);
}

std::shared_ptr<zephal::Console> openConsole(const Device& device) {
  // The limit leaves room for the prompt after the longest response.
  return std::make_shared<zephal::Console>(
      device.url(), zephal::ConsoleOptions{.prompt = "> ", .limit = kLong + kMebi});
}

std::function<void()> stackAsker(const Device& device) {
  return [stack = openStack(device.url(), "> ")] {
    for (size_t i = 0; i < kCommands; ++i) {
      const auto response = stack->sendCommandString("ping", 10);
      expect(response.has_value() && response->size() == 7);
    }
  };
}

std::function<void()> consoleAsker(const Device& device) {
  return [console = openConsole(device)] {
    for (size_t i = 0; i < kCommands; ++i) expect(console->ask("ping") == "pong\n");
  };
}

void runAsk(Transport transport, int rounds) {
  const Device stackDevice(transport, kClientCPU);
  const Device consoleDevice(transport, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return stackAsker(stackDevice); }, [&] { return consoleAsker(consoleDevice); });
  printRow(std::string("ask, ") + nameOf(transport) + ", time against sendCommandString",
           "1.25 times", timesEachOf(contest, kCommands, "stack", "console"));
}

std::string wordsCommand(size_t length) {
  return "words " + std::to_string(length) + " " + std::to_string(kLong);
}

std::function<void()> stackFlood(const Device& device) {
  return [stack = openStack(device.url(), "> ")] {
    stack->writeString(wordsCommand(kLong));
    const ZPKDataPtr response = stack->readDataWithTimeout(60, nullptr);
    expect(response != nullptr && response->length() == kLong + 2);
  };
}

// The last of the patterns is the one that is found.
std::function<void()> consoleFlood(const Device& device, size_t length, const Patterns& patterns) {
  return [length, patterns, console = openConsole(device)] {
    console->send(wordsCommand(length));
    const zephal::Hit hit = console->expect(patterns, std::chrono::seconds(60));
    expect(hit.index == patterns.size() - 1 && hit.before.size() == length);
  };
}

void runFlood(const char* what, const Patterns& patterns, int rounds) {
  const Device stackDevice(Transport::Unix, kClientCPU);
  const Device consoleDevice(Transport::Unix, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return stackFlood(stackDevice); },
      [&] { return consoleFlood(consoleDevice, kLong, patterns); });
  printRow(std::string("expect, 16 MiB of words, ") + what + ", rate against the stack's delimiter",
           "0.5", eachOf(contest, 1, "stack", "console"));
}

void runGrowth(const char* what, const Patterns& patterns, int rounds) {
  const Device shortDevice(Transport::Unix, kClientCPU);
  const Device longDevice(Transport::Unix, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return consoleFlood(shortDevice, kQuarter, patterns); },
      [&] { return consoleFlood(longDevice, kLong, patterns); });
  printRow(std::string("expect, 16 MiB against 4 MiB without a match, ") + what + ", time",
           "4.3 times", timesEachOf(contest, 1, "4 MiB", "16 MiB"));
}

std::string linesCommand() {
  return "flood " + std::to_string(kWidth) + " " + std::to_string(kLines);
}

std::function<void()> stackLines(const Device& device) {
  return [stack = openStack(device.url(), "\n")] {
    stack->writeString(linesCommand());
    for (size_t i = 0; i < kLines; ++i) {
      const ZPKDataPtr line = stack->readDataWithTimeout(10, nullptr);
      expect(line != nullptr && line->length() == kWidth);
    }
  };
}

std::function<void()> consoleLines(const Device& device) {
  return [console = openConsole(device), end = zephal::Pattern("\n")] {
    console->send(linesCommand());
    for (size_t i = 0; i < kLines; ++i) expect(console->expect(end).before.size() == kWidth - 1);
  };
}

void runLines(int rounds) {
  const Device stackDevice(Transport::Unix, kClientCPU);
  const Device consoleDevice(Transport::Unix, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return stackLines(stackDevice); }, [&] { return consoleLines(consoleDevice); });
  printRow("expect, each of the lines of 80 bytes, time against the stack's delimiter", "reported",
           timesEachOf(contest, kLines, "stack", "console"));
}

}  // namespace

void benchmarkConsole(int rounds) {
  const zephal::Pattern prompt("> ");
  const zephal::Pattern expression = zephal::regex("[>$#] ");
  printHeader("The console, against the stack");
  for (const Transport transport : {Transport::Tcp, Transport::Unix, Transport::Pty}) {
    runAsk(transport, rounds);
  }
  runFlood("one text", {prompt}, rounds);
  runFlood("three texts", {"login: ", "Password: ", prompt}, rounds);
  runFlood("an expression", {expression}, rounds);
  runGrowth("texts", {"login: ", "Password: ", prompt}, rounds);
  runGrowth("expressions", {zephal::regex("value=([0-9]+) V"), expression}, rounds);
  runLines(rounds);
}
