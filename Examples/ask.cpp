// Sends requests to a server of objects, such as the fixture, and prints its answers. Both are
// dictionaries.
#include <ZephalIO/ZephalIO.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Common.h"

namespace {

constexpr const char* kHelp =
    R"(usage: ask URL REQUEST...

Sends each REQUEST to a server of objects and prints its answer.

URL      tcp://HOST:PORT or unix:///PATH
REQUEST  words KEY=VALUE, which form a dictionary: 'do=set rail=vbat volts=3.8'

  --help     print this
  --version  print the version

Whatever a terminal would obey in an answer is shown as "\u001b" or "\x7f".
Exit status: 0 if every request was answered, 1 if not, 2 for wrong usage.
)";

// How long an answer may take, in seconds.
constexpr double kPatience = 30;

// The size in front of each packet, as the server expects it.
constexpr int32_t kSizeBytes = 2;
constexpr size_t kLongestPacket = 0xFFFF;

// From the connection up: whole packets, one per read, and a read that waits until there is one.
ZPKDataChannelPtr framed(const ZPKDataChannelPtr& connection) {
  return createPassiveChannel(createChannelTransformerWithPreCall(
      connection, {createPacketAggregatorTransformer(kSizeBytes)},
      {createPacketPrependTransformer(kSizeBytes)}));
}

// A number if the text is one.
ZPKValue valueFrom(const std::string& text) {
  const std::optional<double> number = decimalFrom(text);
  return number.has_value() ? ZPKValue(*number) : ZPKValue(text);
}

// Null if the text is not a request.
ZPKDictionaryPtr requestFrom(const std::string& text) {
  ZPKDictionary::Entries entries;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t mark = word.find('=');
    if (mark == std::string::npos || mark == 0) return nullptr;
    entries.emplace_back(word.substr(0, mark), valueFrom(word.substr(mark + 1)));
  }
  return entries.empty() ? nullptr : ZPKDictionary::init(std::move(entries));
}

struct Call {
  std::string url;
  std::vector<ZPKDictionaryPtr> requests;
};

Call callFrom(int count, char** words) {
  Call call;
  CommandLine line(count, words, kHelp, {});
  line.nextOption();
  call.url = line.word("URL");
  for (const std::string& text : line.words("REQUEST")) {
    call.requests.push_back(requestFrom(text));
    if (call.requests.back() == nullptr) line.refuse(text + ": not KEY=VALUE");
  }
  return call;
}

int fail(const Call& call, const std::string& what) {
  std::fprintf(stderr, "ask: %s: %s\n", call.url.c_str(), what.c_str());
  return kRefused;
}

void print(const char* margin, const ZPKObject& object) {
  std::printf("%s%s\n", margin, printable(object.debugDescription()).c_str());
  std::fflush(stdout);
}

// Sends one request after another.
int converse(const Call& call, ZPKDataChannel& channel) {
  ZPKDataDefaultSerializer serializer;
  for (const ZPKDictionaryPtr& request : call.requests) {
    print("", *request);
    const ZPKDataPtr packet = serializer.serialize(request);
    if (packet == nullptr) return fail(call, "not UTF-8");
    if (packet->length() > kLongestPacket) return fail(call, "too long");
    // The answer shows whether it got there; a refusal may have been sent before the request.
    channel.write(packet);
    const ZPKDataPtr data = channel.readWithTimeout(kPatience);
    if (data == nullptr) return fail(call, "hung up");
    if (data->length() == 0) return fail(call, "no answer");
    const ZPKObjectPtr answer = serializer.deserialize(data);
    if (answer == nullptr) return fail(call, "the answer is not an object");
    print("    ", *answer);
  }
  return kDone;
}

int ask(const Call& call, const QuietLog& log) {
  ZPKErrorPtr error;
  const ZPKDataChannelPtr connection = createBaseChannelWithTransport(call.url, &error);
  if (connection == nullptr) return fail(call, error->description() + hintAt(call.url));
  const ZPKDataChannelPtr channel = framed(connection);
  if (!channel->openWithTimeout(kPatience, &error)) {
    const int number = errno;
    return fail(call, log.reasonOf(error, number));
  }
  const int status = converse(call, *channel);
  channel->close();
  return status;
}

}  // namespace

int main(int count, char** words) {
  const Call call = callFrom(count, words);
  // Every failure is printed once, by fail; the log would also report the end of each conversation.
  const QuietLog log;
  try {
    return ask(call, log);
  } catch (const std::out_of_range&) {
    return fail(call, kModeIsTooShort);
  }
}
