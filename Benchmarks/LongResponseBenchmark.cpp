// One response of many megabytes.
#include <cstdlib>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawLoop.h"
#include "Stack.h"

namespace {

constexpr size_t kMebi = 1024 * 1024;

void rawResponse(RawLoop& loop, const std::string& command) {
  loop.write(command + "\n");
  if (loop.readResponse() < kMebi) std::exit(1);
}

void stackResponse(ZPKCommStack& stack, const std::string& command) {
  const ZPKDataPtr response = stack.sendCommandData(ZPKData::dataWithString(command), 60.0);
  if (response == nullptr || response->length() < kMebi) std::exit(1);
}

std::string commandFor(const char* kind, size_t mebibytes, size_t piece) {
  return std::string(kind) + " " + std::to_string(mebibytes * kMebi) + " " + std::to_string(piece);
}

void runAgainstRaw(Transport transport, size_t piece, const char* pieces, int rounds) {
  const Device rawDevice(transport, -1);
  const Device stackDevice(transport, -1);
  RawLoop loop(rawDevice.connect(), "> ");
  const ZPKCommStackPtr stack = openStack(stackDevice.url(), "> ");
  const std::string command = commandFor("big", 16, piece);
  const Contest contest = compare(
      rounds, [&] { rawResponse(loop, command); }, [&] { stackResponse(*stack, command); });
  printRow(std::string(nameOf(transport)) + ", 16 MiB " + pieces,
           transport == Transport::Pty ? "time at most 0.8" : "time at most 0.6",
           number(1 / contest.ratio, 2) + " (raw " + number(contest.raw * 1e3, 1) + " ms, stack " +
               number(contest.ours * 1e3, 1) + " ms)");
}

void runGrowth(Transport transport, const char* kind, const char* what, int rounds) {
  const Device device(transport, -1);
  const ZPKCommStackPtr stack = openStack(device.url(), "> ");
  const Contest contest = compare(
      rounds, [&] { stackResponse(*stack, commandFor(kind, 16, 65536)); },
      [&] { stackResponse(*stack, commandFor(kind, 4, 65536)); });
  printRow(std::string(nameOf(transport)) + ", 16 MiB against 4 MiB, " + what, "at most 5 times",
           number(contest.ratio, 2) + " times");
}

}  // namespace

void benchmarkLongResponses(int rounds) {
  printHeader("One long response, time against the raw loop with memmem");
  for (const Transport transport : {Transport::Tcp, Transport::Unix, Transport::Pty}) {
    runAgainstRaw(transport, 32 * kMebi, "at once", rounds);
    runAgainstRaw(transport, 4096, "in 4 KiB pieces", rounds);
    runGrowth(transport, "big", "text", rounds);
    runGrowth(transport, "stairs", "every byte the delimiter's first", rounds);
  }
}
