#include <ZephalIO/ZephalIO.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "Hostile/FloodChannel.h"
#include "Hostile/Work.h"

namespace {

using Decorate = std::function<ZPKDataChannelPtr(const ZPKDataChannelPtr& below)>;

constexpr const char* kPrompt = "=> ";
constexpr double kSeconds = 60;
// A unit of three bytes takes as much as a long one.
constexpr size_t kShort = 1024;
constexpr size_t kLong = 8192;

// Reads until this many bytes have come.
void readAll(ZPKDataChannel& channel, size_t size) {
  size_t received = 0;
  while (received < size) {
    const ZPKDataPtr data = channel.readWithTimeout(kSeconds);
    require(data != nullptr && data->length() > 0, "a read failed");
    received += data->length();
  }
  require(received == size, "more bytes than were sent");
}

void readDecorated(const std::string& text, const Decorate& decorate) {
  const auto below = std::make_shared<FloodChannel>(text);
  const ZPKDataChannelPtr channel = decorate(below);
  require(channel != nullptr && channel->openWithTimeout(kSeconds), "the open failed");
  readAll(*channel, text.size());
  channel->close();
}

// The reader has read everything before anybody asks for it.
void readLate(const std::string& text) {
  const auto below = std::make_shared<FloodChannel>(text);
  const ZPKDataChannelPtr channel = createActiveChannel(below);
  require(channel->openWithTimeout(kSeconds), "the open failed");
  below->waitUntilUsedUp();
  readAll(*channel, text.size());
  channel->close();
}

ZPKDataChannelPtr withoutEcho(const ZPKDataChannelPtr& below) {
  const ZPKDataChannelPtr channel =
      createEchoRemovalChannel(below, ZPKData::dataWithString("\r\n"));
  channel->openWithTimeout(kSeconds);
  channel->write(ZPKData::dataWithString("command\r\n"));
  channel->close();
  return channel;
}

// Echoes that are held back come out with the end of a line.
void readWithoutEcho(const std::string& text) {
  const auto below = std::make_shared<FloodChannel>(text + "\r\n");
  const ZPKDataChannelPtr channel = withoutEcho(below);
  channel->openWithTimeout(kSeconds);
  size_t received = 0;
  while (received < text.size() + 2) {
    const ZPKDataPtr data = channel->readWithTimeout(0.0);
    require(data != nullptr, "a read failed");
    received += data->length();
  }
}

void readLogged(const std::string& text) {
  char path[] = "/tmp/zephalio-flood-XXXXXX";
  ::close(::mkstemp(path));
  readDecorated(text, [&path](const ZPKDataChannelPtr& below) {
    return createLoggingChannel(below, path, "flood", false);
  });
  ::unlink(path);
}

// Reads the units of a whole stack, up to the prompt that ends the flood.
void readByStack(const std::string& text, bool isActive) {
  const auto below = std::make_shared<FloodChannel>(text + kPrompt);
  const auto stack = ZPKCommStack::init();
  stack->setDelimiter(kPrompt);
  stack->setActiveChannelOnOff(isActive);
  stack->setReadFilters({"noise"});
  require(stack->createStackWithBaseChannel(below) && stack->openWithTimeout(std::nullopt), "open");
  size_t received = 0;
  while (received < text.size() + 3) {
    const ZPKDataPtr unit = stack->readDataWithTimeout(kSeconds, nullptr);
    require(unit != nullptr, "a read failed");
    received += unit->length();
  }
  stack->close();
}

void addChannels(const std::string& name, const std::string& bytes, Works* works) {
  const auto add = [&](const char* layer, const std::function<void(const std::string&)>& read) {
    works->push_back({layer, name, bytes, read, bytes == kPrompt ? kShort : kLong});
  };
  const auto active = [](const ZPKDataChannelPtr& below) { return createActiveChannel(below); };
  const auto passive = [](const ZPKDataChannelPtr& below) { return createPassiveChannel(below); };
  add("background reader", [active](const std::string& text) { readDecorated(text, active); });
  add("background reader, read late", readLate);
  add("repeated reading", [passive](const std::string& text) { readDecorated(text, passive); });
  add("echo removal", readWithoutEcho);
  add("log", readLogged);
  add("stack", [](const std::string& text) { readByStack(text, false); });
  add("stack with background reader", [](const std::string& text) { readByStack(text, true); });
}

}  // namespace

Works channelWorks() {
  Works works;
  addChannels("no delimiter", "x", &works);
  addChannels("line feeds", "\n", &works);
  addChannels("near misses", "=>\r", &works);
  addChannels("prompts", kPrompt, &works);
  addChannels("escapes without end", "\x1b[1;", &works);
  addChannels("invalid UTF-8", "\xff\xc3(\xe2\x82", &works);
  addChannels("NULs", std::string(1, '\0'), &works);
  return works;
}
