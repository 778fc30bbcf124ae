// A device that talks without pause: splitting its lines, each into a block of its own.
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "AsioLines.h"
#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawLoop.h"
#include "Stack.h"

namespace {

struct Lines {
  size_t width;
  size_t count;
  std::string command;
};

Lines linesOf(size_t width) {
  const size_t count = 48 * 1024 * 1024 / (width + 48);
  return {width, count, "flood " + std::to_string(width) + " " + std::to_string(count)};
}

void expect(bool condition) {
  if (!condition) std::exit(1);
}

std::function<void()> rawReader(const Device& device, const Lines& lines) {
  return [lines, loop = std::make_shared<RawLoop>(device.connect(), "\n")] {
    loop->write(lines.command + "\n");
    for (size_t i = 0; i < lines.count; ++i) expect(loop->readResponse() == lines.width);
  };
}

std::function<void()> asioReader(const Device& device, const Lines& lines, size_t room) {
  return [lines, peer = AsioLines::onUnixSocket(device.connect(), room)] {
    peer->write(lines.command + "\n");
    for (size_t i = 0; i < lines.count; ++i) expect(peer->readLine() == lines.width);
  };
}

std::function<void()> stackReader(const Device& device, const Lines& lines,
                                  std::optional<ZPKNumber> timeout) {
  return [lines, timeout, stack = openStack(device.url(), "\n")] {
    stack->writeString(lines.command);
    for (size_t i = 0; i < lines.count; ++i) {
      const ZPKDataPtr line = stack->readDataWithTimeout(timeout, nullptr);
      expect(line != nullptr && line->length() == lines.width);
    }
  };
}

void runAgainstRaw(size_t width, std::optional<ZPKNumber> timeout, const char* goal, int rounds) {
  const Lines lines = linesOf(width);
  const Device rawDevice(Transport::Unix, kClientCPU);
  const Device stackDevice(Transport::Unix, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return rawReader(rawDevice, lines); },
      [&] { return stackReader(stackDevice, lines, timeout); });
  printRow(std::to_string(width) + " bytes a line, timeout " +
               (timeout.has_value() ? timeout->stringValue() + " s" : "none") +
               ", time against the raw loop with an owned block a line",
           goal, timesEachOf(contest, lines.count, "raw", "stack"));
}

void runAgainstAsio(size_t width, size_t room, const char* goal, int rounds) {
  const std::string what = std::to_string(width) + " bytes a line, rate against Asio" +
                           (room > 0 ? " with room for 64 KiB" : "");
  if (!AsioLines::isInstalled()) return printMissing(what, goal);
  const Lines lines = linesOf(width);
  const Device peerDevice(Transport::Unix, kClientCPU);
  const Device stackDevice(Transport::Unix, kClientCPU);
  const Contest contest = compareApart(
      rounds, [&] { return asioReader(peerDevice, lines, room); },
      [&] { return stackReader(stackDevice, lines, std::nullopt); });
  printRow(what, goal, eachOf(contest, lines.count, "Asio", "stack"));
}

}  // namespace

void benchmarkFlood(int rounds) {
  printHeader("A flood of lines over a unix socket");
  runAgainstAsio(16, 0, "1.05", rounds);
  runAgainstAsio(80, 0, "1.7", rounds);
  runAgainstAsio(1000, 0, "2.5", rounds);
  for (const size_t width : {16, 80, 1000}) runAgainstAsio(width, 65536, "reported", rounds);
  for (const std::optional<ZPKNumber>& timeout :
       {std::optional<ZPKNumber>(), std::optional<ZPKNumber>(10)}) {
    runAgainstRaw(16, timeout, "2.6 times", rounds);
    runAgainstRaw(80, timeout, "2.0 times", rounds);
    runAgainstRaw(1000, timeout, "1.25 times", rounds);
  }
}
