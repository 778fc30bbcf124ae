// Does one kind of work a given number of times, so that Benchmarks/exact can count what it takes.
//
//     zephalio-exact WORK COUNT
//
// Instructions are counted from outside, as the difference of two runs of different length. The
// works that count something themselves (faults, heap) print one number.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "../Device.h"
#include "../MixedDictionary.h"
#include "../Stack.h"
#include "HeldPipe.h"
#include "MemoryChannel.h"

namespace {

constexpr size_t kPiece = 65536;  // the room in a transport's read
constexpr double kSeconds = 10;

void expect(bool condition) {
  if (condition) return;
  std::fputs("the work was not done\n", stderr);
  std::exit(1);
}

ZPKCommStackPtr stackOn(const ZPKDataChannelPtr& channel,
                        const std::function<void(ZPKCommStack&)>& configure = nullptr) {
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("\n");
  if (configure) configure(*stack);
  expect(stack->createStackWithBaseChannel(channel));
  if (!channel->isOpened()) expect(stack->openWithTimeout(std::nullopt));
  return stack;
}

ZPKCommStackPtr stackOnMemory(const std::string& text) {
  return stackOn(std::make_shared<MemoryChannel>(text, kPiece));
}

// As many lines as a piece has bytes, so that the text is a whole number of pieces.
std::string linesOf(size_t length) {
  std::string text;
  for (size_t i = 0; i < kPiece; ++i) text += std::string(length - 1, 'x') + "\n";
  return text;
}

void readLines(size_t length, size_t count) {
  const auto stack = stackOnMemory(linesOf(length));
  for (size_t i = 0; i < count; ++i) {
    const ZPKDataPtr line = stack->readDataWithTimeout(kSeconds, nullptr);
    expect(line != nullptr && line->length() == length);
  }
}

void readStrings(size_t count) {
  constexpr size_t kLength = 16;
  const auto stack = stackOnMemory(linesOf(kLength));
  for (size_t i = 0; i < count; ++i) {
    const auto line = stack->readStringWithTimeout(kSeconds, std::nullopt);
    expect(line.has_value() && line->size() == kLength);
  }
}

// The lines that are read while both logs are held gather in memory, and are then written together:
// how many chunks go into a write would otherwise depend on the machine's load.
void logLines(size_t count) {
  constexpr size_t kLength = 16;
  const std::string path = "/tmp/zephalio-exact-" + std::to_string(::getpid());
  HeldPipe outer(path + "-outer.log");
  HeldPipe raw(path + "-raw.log");
  const auto channel = std::make_shared<MemoryChannel>(linesOf(kLength), kPiece);
  const auto stack = stackOn(channel, [&](ZPKCommStack& closed) {
    expect(closed.setLogFilePath(outer.path(), raw.path()));
  });
  for (size_t i = 0; i < count; ++i) {
    const ZPKDataPtr line = stack->readDataWithTimeout(kSeconds, nullptr);
    expect(line != nullptr && line->length() == kLength);
  }
  outer.drain();
  raw.drain();
  stack->close();
}

// With a device that answers only when its client waits for it, so that each round trip takes the
// same path through the library.
struct Conversation {
  Conversation() {
    device.standBack();
    pinTo(0);
  }

  const Device device{Transport::Unix, 0};
  const ZPKCommStackPtr stack = openStack(device.url(), "> ");
};

void sendCommands(size_t count) {
  const Conversation conversation;
  const ZPKDataPtr command = ZPKData::dataWithString("ping");
  for (size_t i = 0; i < count; ++i) {
    const ZPKDataPtr response = conversation.stack->sendCommandData(command, kSeconds);
    expect(response != nullptr && response->length() == 7);
  }
}

void sendCommandStrings(size_t count) {
  const Conversation conversation;
  for (size_t i = 0; i < count; ++i) {
    expect(conversation.stack->sendCommandString("ping", kSeconds).has_value());
  }
}

// A console with such a device.
struct ConsoleTalk {
  ConsoleTalk() {
    device.standBack();
    pinTo(0);
  }

  const Device device{Transport::Unix, 0};
  // A device that stands back gets the processor late on a busy machine.
  zephal::Console console{device.url(), {.prompt = "> ", .timeout = std::chrono::minutes(1)}};
};

void askQuestions(size_t count) {
  ConsoleTalk talk;
  for (size_t i = 0; i < count; ++i) expect(talk.console.ask("ping") == "pong\n");
}

void expectLines(size_t count) {
  constexpr size_t kLength = 80;
  ConsoleTalk talk;
  talk.console.send("flood " + std::to_string(kLength) + " " + std::to_string(count));
  const zephal::Pattern end("\n");
  for (size_t i = 0; i < count; ++i) {
    expect(talk.console.expect(end).before.size() == kLength - 1);
  }
}

// One match after so many KiB.
void expectAfter(size_t kibibytes) {
  constexpr size_t kKibi = 1024;
  ConsoleTalk talk;
  const std::string length = std::to_string(kibibytes * kKibi);
  talk.console.send("words " + length + " " + length);
  expect(talk.console.expect({"login: ", "> "}).before.size() == kibibytes * kKibi);
}

// Refilled each time: searching bytes that were searched before would cost nothing.
void filterLines(size_t count) {
  const auto filter = createFilteringTransformer(ZPKData::dataWithString("\033[0m"));
  const std::string text(80, 'x');
  const auto chunk = ZPKMutableData::data();
  for (size_t i = 0; i < count; ++i) {
    chunk->setLength(0);
    chunk->append(text.data(), text.size());
    filter->modifyData(chunk.get());
    expect(chunk->length() == text.size());
  }
}

void writeArchives(size_t count) {
  const auto dictionary = mixedDictionary();
  const auto serializer = ZPKDataDefaultSerializer::init();
  for (size_t i = 0; i < count; ++i) expect(serializer->serialize(dictionary) != nullptr);
}

void readArchives(size_t count) {
  const auto serializer = ZPKDataDefaultSerializer::init();
  const ZPKDataPtr archive = serializer->serialize(mixedDictionary());
  for (size_t i = 0; i < count; ++i) expect(serializer->deserialize(archive) != nullptr);
}

long pageFaults() {
  rusage usage{};
  expect(::getrusage(RUSAGE_SELF, &usage) == 0);
  return usage.ru_minflt;
}

// Writes lines without end; tells `ready` once the socket is full.
[[noreturn]] void flood(int socket, int ready, size_t length) {
  const std::string text = linesOf(length);
  size_t at = 0;
  const auto send = [&](int flags) {
    return ::send(socket, text.data() + at, text.size() - at, flags | MSG_NOSIGNAL);
  };
  for (ssize_t sent = send(MSG_DONTWAIT); sent > 0; sent = send(MSG_DONTWAIT)) {
    at += static_cast<size_t>(sent);
  }
  if (::write(ready, "", 1) != 1) ::_exit(1);
  for (; send(0) > 0; at = 0) continue;
  ::_exit(0);
}

// The end of a full socket to which a separate process writes lines without end, until it is
// closed. That process makes the lines: freeing so large a string here would teach malloc to keep
// large blocks, and hide what the library's blocks cost.
int flooded(size_t length) {
  std::array<int, 2> ends{};
  std::array<int, 2> ready{};
  expect(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0);
  expect(::pipe(ready.data()) == 0);
  const pid_t process = ::fork();
  expect(process >= 0);
  ::close(ends[process == 0 ? 0 : 1]);
  if (process == 0) flood(ends[1], ready[1], length);
  char told = 0;
  expect(::read(ready[0], &told, 1) == 1);
  return ends[0];
}

// For a flood of `count` lines of 80 bytes. Both ends are on one processor and the device goes
// first, so that each read finds a full socket: what a read gets does not depend on the machine's
// load. What it gets ends in the middle of a line, so that the rest of one block is held while the
// next one is read.
void countPageFaults(size_t count) {
  constexpr size_t kLength = 80;
  pinTo(0);
  const int socket = flooded(kLength);
  letStandBack(0);
  const auto stack = stackOn(createActiveTCPChannelWithSocket(socket));
  const long before = pageFaults();
  for (size_t i = 0; i < count; ++i) {
    const ZPKDataPtr line = stack->readDataWithTimeout(kSeconds, nullptr);
    expect(line != nullptr && line->length() == kLength);
  }
  std::printf("%ld\n", pageFaults() - before);
  stack->close();
}

// For one open stack with its chain, on average over `count` of them.
void countHeapBytes(size_t count) {
  std::vector<ZPKCommStackPtr> stacks(count);
  stacks[0] = stackOnMemory("x\n");  // also pays the costs that occur once for all of them
  const size_t before = ::mallinfo2().uordblks;
  for (size_t i = 1; i < count; ++i) stacks[i] = stackOnMemory("x\n");
  std::printf("%zu\n", (::mallinfo2().uordblks - before) / (count - 1));
}

struct Work {
  std::string_view name;
  void (*run)(size_t count);
};

constexpr Work kWorks[] = {
    {"line-16", [](size_t count) { readLines(16, count); }},
    {"line-80", [](size_t count) { readLines(80, count); }},
    {"line-1000", [](size_t count) { readLines(1000, count); }},
    {"string-16", readStrings},
    {"log-chunk", logLines},
    {"round-trip", sendCommands},
    {"round-trip-string", sendCommandStrings},
    {"ask", askQuestions},
    {"expect-line", expectLines},
    {"expect-kib", expectAfter},
    {"filter", filterLines},
    {"archive-write", writeArchives},
    {"archive-read", readArchives},
    {"page-faults", countPageFaults},
    {"heap", countHeapBytes},
};

}  // namespace

int main(int argc, char** argv) {
  const long count = argc == 3 ? std::atol(argv[2]) : 0;
  for (const Work& work : kWorks) {
    if (count <= 1 || work.name != argv[1]) continue;
    work.run(static_cast<size_t>(count));
    return 0;
  }
  std::fputs("usage: zephalio-exact WORK COUNT\nWORK is one of", stderr);
  for (const Work& work : kWorks) std::fprintf(stderr, " %s", std::string(work.name).c_str());
  std::fputs("\n", stderr);
  return 2;
}
