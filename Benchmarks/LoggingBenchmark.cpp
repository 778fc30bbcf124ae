// Traffic with both logs of a stack on. The logs are written in the background, so the caller can
// finish before them; closing waits for them and is counted in rows of its own.
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "Stack.h"

namespace {

// Two files, which are removed when the object is destroyed.
class LogFiles {
 public:
  LogFiles() : _outer(pathOf("outer")), _raw(pathOf("raw")) {}
  LogFiles(const LogFiles&) = delete;
  LogFiles& operator=(const LogFiles&) = delete;
  ~LogFiles() {
    ::unlink(_outer.c_str());
    ::unlink(_raw.c_str());
  }

  void configure(ZPKCommStack& stack) const {
    if (!stack.setLogFilePath(_outer, _raw)) std::exit(1);
  }

 private:
  static std::string pathOf(const char* name) {
    return "/tmp/zephalio-bench-" + std::to_string(::getpid()) + "-" + name + ".log";
  }

  const std::string _outer;
  const std::string _raw;
};

struct Traffic {
  const char* name;
  size_t width;
  size_t chunks;
  void (*run)(ZPKCommStack& stack, const Traffic& traffic);
};

void readChunks(ZPKCommStack& stack, const Traffic& traffic) {
  stack.writeString("flood " + std::to_string(traffic.width) + " " +
                    std::to_string(traffic.chunks));
  for (size_t i = 0; i < traffic.chunks; ++i) {
    const ZPKDataPtr chunk = stack.readDataWithTimeout(10, nullptr);
    if (chunk == nullptr || chunk->length() != traffic.width) std::exit(1);
  }
}

// With a final round trip, which shows that the device has received them all.
void writeChunks(ZPKCommStack& stack, const Traffic& traffic) {
  std::string text = "note ";
  text.resize(traffic.width - 1, 'x');  // and the line terminator
  const ZPKDataPtr chunk = ZPKData::dataWithString(text);
  for (size_t i = 0; i < traffic.chunks; ++i) {
    if (!stack.writeData(chunk)) std::exit(1);
  }
  if (stack.sendCommandString("ping", 10) != "pong\n") std::exit(1);
}

struct Seconds {
  double traffic;
  double withClose;
};

Seconds secondsOf(const Traffic& traffic, bool isLogged) {
  const Device device(Transport::Unix, -1);
  const LogFiles logs;
  const ZPKCommStackPtr stack = openStack(device.url(), "\n", [&](ZPKCommStack& closed) {
    if (isLogged) logs.configure(closed);
  });
  const double talking = secondsFor([&] { traffic.run(*stack, traffic); });
  const double closing = secondsFor([&] { stack->close(); });
  return {talking, talking + closing};
}

void print(const Traffic& traffic, const char* what, const char* goal, const Contest& contest) {
  const double chunks = static_cast<double>(traffic.chunks);
  const double bytes = chunks * static_cast<double>(traffic.width);
  printRow(std::string(traffic.name) + what, goal,
           number(contest.ratio, 2) + " (without " + number(bytes / contest.raw * 1e-6, 1) +
               " MB/s, with logs " + number(bytes / contest.ours * 1e-6, 1) + " MB/s, " +
               number(chunks / contest.ours * 1e-3, 0) + " thousand chunks/s)");
}

void runTraffic(const Traffic& traffic, const char* goal, int rounds) {
  const auto run = [&](double Seconds::*counted) {
    return compareTimed(
        rounds, [&] { return secondsOf(traffic, false).*counted; },
        [&] { return secondsOf(traffic, true).*counted; });
  };
  print(traffic, "", goal, run(&Seconds::traffic));
  print(traffic, ", until the logs are closed", "reported", run(&Seconds::withClose));
}

}  // namespace

void benchmarkLogging(int rounds) {
  printHeader("Both logs on, rate against none, over a unix socket");
  runTraffic({"4 KiB chunks, read", 4096, 16384, readChunks}, "0.7", rounds);
  runTraffic({"4 KiB chunks, written", 4096, 16384, writeChunks}, "0.7", rounds);
  runTraffic({"16-byte chunks, read", 16, 500000, readChunks}, "reported", rounds);
  runTraffic({"16-byte chunks, written", 16, 100000, writeChunks}, "reported", rounds);
}
