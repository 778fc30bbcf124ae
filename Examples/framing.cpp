// Exchanges messages with packet framing: each is sent after its size and arrives whole, whatever
// it contains and however it is split on the line. Both ends are here, on a pair of unix sockets.
#include <ZephalIO/ZephalIO.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Common.h"

namespace {

constexpr double kAnswerTimeout = 30;

constexpr const char* kHelp =
    R"(usage: framing [OPTION]... MESSAGE...

Sends each MESSAGE to another end, which answers it in capitals, and prints the
answers. All messages are sent before the first answer is read.

  --width N  bytes in the size in front of each message, 1 to 8 [2]
  --help     print this
  --version  print the version

Exit status: 0 if each message was answered, 1 if not, 2 for wrong usage.
)";

struct Call {
  int32_t width = 2;
  std::vector<std::string> messages;
};

Call callFrom(int count, char** words) {
  Call call;
  CommandLine line(count, words, kHelp, {{"width", required_argument, nullptr, 'w'}});
  while (line.nextOption() != 0) call.width = line.integer(1, 8);
  call.messages = line.words("MESSAGE");
  return call;
}

int fail(const std::string& what) {
  std::fprintf(stderr, "framing: %s\n", what.c_str());
  return kRefused;
}

std::string reasonOf(const ZPKErrorPtr& error) {
  return error == nullptr ? "the other end is silent" : error->description();
}

// The framing itself cannot fail: a message that is too long would be sent without its size, and an
// empty one would look like no message.
std::optional<std::string> objectionTo(const std::string& message, int32_t width) {
  if (message.empty()) return "an empty message cannot be framed";
  if (width < 8 && message.size() >> (8 * width) != 0) {
    return std::to_string(message.size()) + " bytes are too many for a size of width " +
           std::to_string(width);
  }
  return std::nullopt;
}

// From the line up: the packets, one per read even if several are already buffered, and then a
// channel that reads on until there is one.
ZPKDataChannelPtr framedChannel(const ZPKDataChannelPtr& line, int32_t width, ZPKErrorPtr* error) {
  const ZPKDataTransformerPtr takePacket = createPacketAggregatorTransformer(width, error);
  const ZPKDataTransformerPtr addSize = createPacketPrependTransformer(width, error);
  const ZPKDataChannelPtr packets =
      createChannelTransformerWithPreCall(line, {takePacket}, {addSize}, error);
  return createPassiveChannel(packets, error);
}

std::string inCapitals(std::string_view message) {
  std::string answer(message);
  for (char& letter : answer) {
    letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
  }
  return answer;
}

// The far end: answers until the near end is gone.
void answerAll(const ZPKDataChannelPtr& end) {
  while (const ZPKDataPtr message = end->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER)) {
    if (!end->write(ZPKData::dataWithString(inCapitals(message->view())))) break;
  }
}

// The near end.
int exchange(ZPKDataChannel& end, const std::vector<std::string>& messages) {
  ZPKErrorPtr error;
  for (const std::string& message : messages) {
    if (!end.write(ZPKData::dataWithString(message), &error)) {
      return fail("cannot send: " + reasonOf(error));
    }
  }
  for (const std::string& message : messages) {
    const ZPKDataPtr answer = end.readWithTimeout(kAnswerTimeout, &error);
    if (answer == nullptr || answer->length() == 0) return fail("no answer: " + reasonOf(error));
    if (answer->view() != inCapitals(message)) return fail("not the answer to " + message);
    std::printf("%zu bytes: %s\n", answer->length(), inCapitals(message).c_str());
  }
  return kDone;
}

int run(const Call& call) {
  for (const std::string& message : call.messages) {
    if (const auto objection = objectionTo(message, call.width)) return fail(*objection);
  }
  int sockets[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) {
    return fail("no sockets: " + std::string(std::strerror(errno)));
  }
  // An adopted socket is open, and so is everything built on it. The near end reads ahead: with two
  // ends that both write before they read, the line could fill up in both directions.
  ZPKErrorPtr error;
  const ZPKDataChannelPtr farLine = createActiveTCPChannelWithSocket(sockets[1], &error);
  const ZPKDataChannelPtr nearLine =
      createActiveChannel(createActiveTCPChannelWithSocket(sockets[0], &error), &error);
  const ZPKDataChannelPtr farEnd = framedChannel(farLine, call.width, &error);
  const ZPKDataChannelPtr nearEnd = framedChannel(nearLine, call.width, &error);
  if (farEnd == nullptr || nearEnd == nullptr) {
    return fail("cannot build the ends: " + reasonOf(error));
  }
  std::thread answering(answerAll, farEnd);
  const int status = exchange(*nearEnd, call.messages);
  nearEnd->close();
  answering.join();
  return status;
}

}  // namespace

int main(int count, char** words) {
  const Call call = callFrom(count, words);
  // Every failure is printed once, by fail; the far end's end is not a failure.
  const QuietLog log;
  return run(call);
}
