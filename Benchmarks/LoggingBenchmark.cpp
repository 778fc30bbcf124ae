// Traffic with both logs of a stack on. The logs are written in the background, so the caller can
// finish before them; closing waits for them and is counted.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

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

struct Spent {
  double processor;
  double wall;
};

// Until the logs are closed: only then is everything in the files.
Spent spentOn(const Traffic& traffic, bool isLogged) {
  const Device device(Transport::Unix, -1);
  const LogFiles logs;
  const ZPKCommStackPtr stack = openStack(device.url(), "\n", [&](ZPKCommStack& closed) {
    if (isLogged) logs.configure(closed);
  });
  const double before = processorSeconds();
  const double wall = wallSecondsFor([&] {
    traffic.run(*stack, traffic);
    stack->close();
  });
  return {processorSeconds() - before, wall};
}

void runTraffic(const Traffic& traffic, const char* goal, int rounds) {
  std::vector<double> walls;
  const Contest contest = compareTimed(
      rounds, [&] { return spentOn(traffic, false).processor; },
      [&] {
        const Spent spent = spentOn(traffic, true);
        walls.push_back(spent.wall);
        return spent.processor;
      });
  const double chunks = static_cast<double>(traffic.chunks);
  const double rate = chunks / median(walls);
  printRow(traffic.name, goal,
           number(rate * 1e-6, 2) + " M chunks/s, " +
               number(rate * static_cast<double>(traffic.width) * 1e-6, 0) + " MB/s, CPU " +
               number(contest.ours / chunks * 1e9, 0) + " ns a chunk (without logs " +
               number(contest.base / chunks * 1e9, 0) + " ns)");
}

}  // namespace

void benchmarkLogging(int rounds) {
  printHeader("Both logs on, over a unix socket, until the logs are closed, on all CPUs");
  pinTo(-1);
  runTraffic({"16-byte chunks, read", 16, 500000, readChunks}, "5.5 M chunks/s, CPU 240 ns",
             rounds);
  runTraffic({"16-byte chunks, written", 16, 100000, writeChunks}, "reported", rounds);
  runTraffic({"4 KiB chunks, read", 4096, 16384, readChunks}, "1200 MB/s", rounds);
  runTraffic({"4 KiB chunks, written", 4096, 16384, writeChunks}, "reported", rounds);
  pinTo(kClientCPU);
}
