// A device that talks without pause: splitting its lines.
#include <cstdlib>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawLoop.h"
#include "Stack.h"

namespace {

void runWith(size_t width, std::optional<ZPKNumber> timeout, const char* goal, int rounds) {
  const size_t lines = 48 * 1024 * 1024 / (width + 48);
  const std::string command = "flood " + std::to_string(width) + " " + std::to_string(lines);
  const Device rawDevice(Transport::Unix, -1);
  const Device stackDevice(Transport::Unix, -1);
  RawLoop loop(rawDevice.connect(), "\n");
  const ZPKCommStackPtr stack = openStack(stackDevice.url(), "\n");
  const Contest contest = compare(
      rounds,
      [&] {
        loop.write(command + "\n");
        for (size_t i = 0; i < lines; ++i) {
          if (loop.readResponse() != width) std::exit(1);
        }
      },
      [&] {
        stack->writeString(command);
        for (size_t i = 0; i < lines; ++i) {
          const ZPKDataPtr line = stack->readDataWithTimeout(timeout, nullptr);
          if (line == nullptr || line->length() != width) std::exit(1);
        }
      });
  const double count = static_cast<double>(lines);
  printRow(std::to_string(width) + " bytes a line, timeout " +
               (timeout.has_value() ? timeout->stringValue() + " s" : "none"),
           goal,
           number(contest.ratio, 2) + " (raw " + number(contest.raw / count * 1e9, 0) +
               " ns, stack " + number(contest.ours / count * 1e9, 0) + " ns a line)");
}

}  // namespace

void benchmarkFlood(int rounds) {
  printHeader("A flood of lines over a unix socket, rate against the raw loop");
  for (const std::optional<ZPKNumber>& timeout :
       {std::optional<ZPKNumber>(), std::optional<ZPKNumber>(10)}) {
    runWith(16, timeout, "0.5", rounds);
    runWith(80, timeout, "1", rounds);
    runWith(1000, timeout, "1", rounds);
  }
}
