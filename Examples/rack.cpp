// Talks to a rack of devices at the same time: one stack and one thread for each.
#include <ZephalIO/ZephalIO.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Common.h"

namespace {

constexpr const char* kHelp =
    R"(usage: rack [OPTION]... URL... -- COMMAND...

Sends every COMMAND to every device at the same time, and prints each device's responses
as one block, in the order of the URLs. A device that fails does not stop the others.

URL   uart:///dev/ttyUSB0?baud=115200&mode=8N1, tcp://HOST:PORT or unix:///PATH

  --delimiter D  where a response ends, such as the device's prompt ["> "]
  --timeout S    seconds to wait for each response [5]
  --help         print this
  --version      print the version

Exit status: 0 if every device answered every command, 1 if not, 2 for wrong usage.
)";

struct Call {
  std::string delimiter = "> ";
  double timeout = 5;
  std::vector<std::string> urls;
  std::vector<std::string> commands;
};

// One device, what it answered, and why it did not answer more.
struct Device {
  std::string url;
  ZPKCommStackPtr stack = ZPKCommStack::init();
  std::string text = {};
  std::string failure = {};
};

Call callFrom(int count, char** words) {
  CommandLine line(count, words, kHelp,
                   {{"delimiter", required_argument, nullptr, 'd'},
                    {"timeout", required_argument, nullptr, 't'}});
  Call call;
  while (const int option = line.nextOption()) {
    if (option == 'd') call.delimiter = line.text();
    if (option == 't') call.timeout = line.seconds();
  }
  while (line.hasWords()) {
    const std::string word = line.word("URL");
    if (word == "--") break;
    call.urls.push_back(word);
  }
  if (call.urls.empty()) line.refuse("no URL");
  call.commands = line.words("COMMAND");
  return call;
}

std::string reasonOf(const ZPKErrorPtr& error, int number) {
  // A refused connection has no error, but leaves its reason in errno.
  return error != nullptr ? error->description() : std::string(std::strerror(number));
}

void open(const Call& call, Device* device) {
  ZPKErrorPtr error;
  try {
    if (device->stack->setDelimiter(call.delimiter, &error) &&
        device->stack->createStackWithURL(device->url, &error) &&
        device->stack->openWithTimeout(call.timeout, &error)) {
      return;
    }
    device->failure = reasonOf(error, errno) + hintAt(device->url);
  } catch (const std::out_of_range&) {
    device->failure = kModeIsTooShort;
  }
}

void converse(const Call& call, Device* device) {
  for (const std::string& command : call.commands) {
    ZPKErrorPtr error;
    const auto response = device->stack->sendCommandString(command, call.timeout, &error);
    if (!response.has_value()) {
      device->failure = command + ": " + reasonOf(error, errno);
      return;
    }
    device->text += command + "\n" + *response + "\n";
  }
  device->stack->close();
}

// True if the device answered everything.
bool print(const Device& device) {
  std::printf("--- %s\n%s", device.url.c_str(), device.text.c_str());
  if (device.failure.empty()) return true;
  std::fflush(stdout);
  std::fprintf(stderr, "rack: %s: %s\n", device.url.c_str(), device.failure.c_str());
  return false;
}

}  // namespace

int main(int count, char** words) {
  const Call call = callFrom(count, words);
  // The library's log is not shown, since every failure is printed with its device.
  const QuietLog log;
  std::vector<Device> devices;
  for (const std::string& url : call.urls) devices.push_back({.url = url});
  // One after the other: the names of hosts must not be resolved on two threads at once.
  for (Device& device : devices) open(call, &device);

  // A stack holds its lock while it waits for a response, so devices that shared one would wait for
  // one another. Each has its own, and a thread.
  std::vector<std::thread> threads;
  for (Device& device : devices) {
    if (device.failure.empty()) threads.emplace_back(converse, std::cref(call), &device);
  }
  for (std::thread& thread : threads) thread.join();

  bool haveAllAnswered = true;
  for (const Device& device : devices) haveAllAnswered &= print(device);
  return haveAllAnswered ? kDone : kRefused;
}
