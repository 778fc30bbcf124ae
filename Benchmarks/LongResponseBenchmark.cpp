// One response of many megabytes.
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawLoop.h"
#include "Stack.h"

namespace {

constexpr size_t kMebi = 1024 * 1024;

std::string commandFor(const char* kind, size_t mebibytes, size_t piece) {
  return std::string(kind) + " " + std::to_string(mebibytes * kMebi) + " " + std::to_string(piece);
}

std::function<void()> rawAsker(const Device& device, const std::string& command) {
  return [command, loop = std::make_shared<RawLoop>(device.connect(), "> ")] {
    loop->write(command + "\n");
    if (loop->readResponse() < kMebi) std::exit(1);
  };
}

std::function<void()> stackAsker(const Device& device, const std::string& text) {
  return [command = ZPKData::dataWithString(text), stack = openStack(device.url(), "> ")] {
    const ZPKDataPtr response = stack->sendCommandData(command, 60.0);
    if (response == nullptr || response->length() < kMebi) std::exit(1);
  };
}

void runAgainstRaw(Transport transport, size_t piece, const char* pieces, int rounds) {
  const Device rawDevice(transport, kClientCPU);
  const Device stackDevice(transport, kClientCPU);
  const std::string command = commandFor("big", 16, piece);
  const Contest contest = compareApart(
      rounds, [&] { return rawAsker(rawDevice, command); },
      [&] { return stackAsker(stackDevice, command); });
  printRow(std::string(nameOf(transport)) + ", 16 MiB " + pieces +
               ", time against the raw loop without zeroing",
           transport == Transport::Pty ? "0.88" : "0.45", timesEachOf(contest, 1, "raw", "stack"));
}

// The first response of a new process each time: a heap that has grown once keeps blocks of 16 MiB,
// but never such of 64.
double firstResponse(const Device& device, const std::string& command) {
  const Contestant process([&] { return stackAsker(device, command); });
  return process.run();
}

void runGrowth(Transport transport, const char* kind, const char* what, int rounds) {
  const Device device(transport, kClientCPU, true);
  const Contest contest = compareTimed(
      rounds, [&] { return firstResponse(device, commandFor(kind, 16, 65536)); },
      [&] { return firstResponse(device, commandFor(kind, 64, 65536)); });
  printRow(std::string(nameOf(transport)) + ", 64 MiB against 16 MiB, " + what + ", time",
           "4.3 times", timesEachOf(contest, 1, "16 MiB", "64 MiB"));
}

}  // namespace

void benchmarkLongResponses(int rounds) {
  printHeader("One long response");
  for (const Transport transport : {Transport::Tcp, Transport::Unix, Transport::Pty}) {
    runAgainstRaw(transport, 32 * kMebi, "at once", rounds);
    runAgainstRaw(transport, 4096, "in 4 KiB pieces", rounds);
  }
  for (const Transport transport : {Transport::Tcp, Transport::Unix}) {
    runGrowth(transport, "big", "text", rounds);
    runGrowth(transport, "stairs", "every byte the delimiter's first", rounds);
  }
}
