// A channel that reads ahead: what its thread and its queue cost.
#include <ZephalIO/ZephalIO.h>

#include <cstdlib>

#include "Benchmarks.h"
#include "Device.h"
#include "Measure.h"
#include "RawReader.h"

namespace {

constexpr size_t kCommands = 20000;
constexpr size_t kFloodLine = 4096;
constexpr size_t kFloodBytes = 256 * 1024 * 1024;

// Open; must be closed, or its thread keeps it alive.
ZPKDataChannelPtr openActiveChannel(const Device& device) {
  const auto channel = createActiveChannel(createBaseChannelWithTransport(device.url()));
  if (channel == nullptr || !channel->openWithTimeout(10)) std::exit(1);
  return channel;
}

void takeRaw(RawReader& reader, size_t length) {
  size_t taken = 0;
  while (taken < length) {
    const std::vector<char> bytes = reader.take();
    if (bytes.empty()) std::exit(1);
    taken += bytes.size();
  }
  if (taken != length) std::exit(1);
}

void takeOurs(ZPKDataChannel& channel, size_t length) {
  size_t taken = 0;
  while (taken < length) {
    const ZPKDataPtr bytes = channel.readWithTimeout(10);
    if (bytes == nullptr || bytes->length() == 0) std::exit(1);
    taken += bytes->length();
  }
  if (taken != length) std::exit(1);
}

void rawCommands(RawReader& reader) {
  for (size_t i = 0; i < kCommands; ++i) {
    reader.write("ping\n");
    takeRaw(reader, 7);
  }
}

void ourCommands(ZPKDataChannel& channel) {
  const ZPKDataPtr command = ZPKData::dataWithString("ping\n");
  for (size_t i = 0; i < kCommands; ++i) {
    if (!channel.write(command)) std::exit(1);
    takeOurs(channel, 7);
  }
}

void runRoundTrips(Transport transport, int rounds) {
  const Device rawDevice(transport, kClientCPU);
  const Device ourDevice(transport, kClientCPU);
  RawReader reader(rawDevice.connect());
  const ZPKDataChannelPtr channel = openActiveChannel(ourDevice);
  const Contest contest = compare(
      rounds, [&] { rawCommands(reader); }, [&] { ourCommands(*channel); });
  channel->close();
  printRow(std::string("round trip, ") + nameOf(transport), "0.95",
           eachOf(contest, kCommands, "raw", "channel"));
}

void runFlood(int rounds) {
  const Device rawDevice(Transport::Unix, kClientCPU);
  const Device ourDevice(Transport::Unix, kClientCPU);
  RawReader reader(rawDevice.connect());
  const ZPKDataChannelPtr channel = openActiveChannel(ourDevice);
  const std::string command =
      "flood " + std::to_string(kFloodLine) + " " + std::to_string(kFloodBytes / kFloodLine) + "\n";
  const Contest contest = compare(
      rounds,
      [&] {
        reader.write(command);
        takeRaw(reader, kFloodBytes);
      },
      [&] {
        channel->write(ZPKData::dataWithString(command));
        takeOurs(*channel, kFloodBytes);
      });
  channel->close();
  printRow("flood of 256 MiB, unix", "0.95", eachOf(contest, 1, "raw", "channel"));
}

}  // namespace

void benchmarkActiveChannel(int rounds) {
  printHeader("An active channel, rate against a raw reading thread");
  for (const Transport transport : {Transport::Tcp, Transport::Unix}) {
    runRoundTrips(transport, rounds);
  }
  runFlood(rounds);
}
