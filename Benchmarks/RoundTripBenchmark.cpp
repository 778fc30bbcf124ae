// One command and its response at a time: what the whole chain costs on top of the system calls.
#include <cstdio>
#include <cstdlib>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawLoop.h"
#include "Stack.h"

namespace {

constexpr int kCommands = 20000;

void rawCommands(RawLoop& loop) {
  for (int i = 0; i < kCommands; ++i) {
    loop.write("ping\n");
    if (loop.readResponse() != 7) std::exit(1);
  }
}

void stackCommands(ZPKCommStack& stack) {
  for (int i = 0; i < kCommands; ++i) {
    if (stack.sendCommandString("ping", 10.0) != "pong\n> ") std::exit(1);
  }
}

void runOn(Transport transport, int clientCPU, int deviceCPU, const char* placement, int rounds) {
  const Device rawDevice(transport, deviceCPU);
  const Device stackDevice(transport, deviceCPU);
  pinTo(clientCPU);
  RawLoop loop(rawDevice.connect(), "> ");
  const ZPKCommStackPtr stack = openStack(stackDevice.url(), "> ");
  const Contest contest = compare(
      rounds, [&] { rawCommands(loop); }, [&] { stackCommands(*stack); });
  printRow(std::string(nameOf(transport)) + ", " + placement,
           clientCPU == deviceCPU ? "0.95" : "reported",
           number(contest.ratio, 3) + " (raw " + number(contest.raw / kCommands * 1e6, 2) +
               " us, stack " + number(contest.ours / kCommands * 1e6, 2) + " us)");
}

}  // namespace

void benchmarkRoundTrips(int rounds) {
  printHeader("Round trips of \"ping\", rate against the raw loop");
  for (const Transport transport : {Transport::Tcp, Transport::Unix, Transport::Pty}) {
    runOn(transport, 0, 0, "one CPU", rounds);
    runOn(transport, 0, 1, "one CPU each", rounds);
  }
  pinTo(-1);
}
