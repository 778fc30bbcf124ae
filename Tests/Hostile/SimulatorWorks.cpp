#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>

#include <thread>

#include "Hostile/Work.h"

namespace {

constexpr double kSeconds = 60;

// A client that floods a simulated device, and reads what it answers.
void floodDevice(const std::string& text) {
  const zephal::SimulatedDevice device(zephal::DeviceKind::kUnix,
                                       {.responses = {{"finish", "-the end-"}}});
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(device.url());
  require(channel->openWithTimeout(kSeconds), "open");
  std::thread writer([&] { channel->write(ZPKData::dataWithString(text + "\nfinish\n")); });
  std::string end;
  while (end.find("-the end-") == std::string::npos) {
    const ZPKDataPtr answer = channel->readWithTimeout(kSeconds);
    require(answer != nullptr, "a read failed");
    end = end.substr(end.size() - std::min<size_t>(end.size(), 16)) + std::string(answer->view());
  }
  writer.join();
  channel->close();
}

void add(const std::string& name, const std::string& bytes, Works* works) {
  works->push_back({"simulated device", name, bytes, floodDevice, 1024});
}

}  // namespace

Works simulatorWorks() {
  Works works;
  add("no delimiter", "x", &works);
  add("line feeds", "\n", &works);
  add("invalid UTF-8", "\xff\xc3(\xe2\x82", &works);
  add("NULs", std::string(1, '\0'), &works);
  return works;
}
