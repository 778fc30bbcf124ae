// Sends requests to a server of objects, such as the fixture, and prints its answers. Both are
// dictionaries.
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int kSuccess = 0;
constexpr int kConversationFailed = 1;
constexpr int kBadUsage = 2;

constexpr const char* kHelp =
    R"(usage: ask URL REQUEST...

Sends each REQUEST to a server of objects and prints its answer.

URL      tcp://HOST:PORT or unix:///PATH
REQUEST  words KEY=VALUE, which make a dictionary: 'do=set rail=vbat volts=3.8'

Exit status: 0 if every request was answered, 1 if not, 2 for a wrong call.
)";

// How long an answer may take.
constexpr std::chrono::seconds kPatience{30};

// The size in front of each packet, as the server has it.
constexpr int32_t kSizeBytes = 2;

// A manager takes each read for one object, so the packets must be whole. The active channel at the
// bottom allows a disconnect while the manager's thread waits in a read.
ZPKDataChannelPtr framed(const ZPKDataChannelPtr& connection) {
  return createChannelTransformerWithPreCall(createActiveChannel(connection),
                                             {createPacketAggregatorTransformer(kSizeBytes)},
                                             {createPacketPrependTransformer(kSizeBytes)});
}

/// Keeps the objects that arrive, on the manager's thread, until the program takes them.
class Answers final : public ZPKDataChannelManagerDelegate {
 public:
  /// The next one; null if the server hung up, or the time is up.
  ZPKObjectPtr next() {
    std::unique_lock lock(_mutex);
    _hasChanged.wait_for(lock, kPatience, [this] { return !_objects.empty() || _isOver; });
    if (_objects.empty()) return nullptr;
    const ZPKObjectPtr object = _objects.front();
    _objects.pop_front();
    return object;
  }

  bool isOver() {
    const std::lock_guard guard(_mutex);
    return _isOver;
  }

  void waitForTheEnd() {
    std::unique_lock lock(_mutex);
    _hasChanged.wait(lock, [this] { return _isOver; });
  }

  /// Empty data are no failure: a part of a packet came, or nothing did for a long time.
  bool shouldDeserializeData(const ZPKDataChannelManagerPtr& /*manager*/,
                             const ZPKDataChannelPtr& /*channel*/,
                             const ZPKDataPtr& data) override {
    return data == nullptr || data->length() > 0;
  }

  void didReceiveMessage(const ZPKDataChannelManagerPtr& /*manager*/,
                         const ZPKDataChannelPtr& /*channel*/,
                         const ZPKObjectPtr& message) override {
    const std::lock_guard guard(_mutex);
    _objects.push_back(message);
    _hasChanged.notify_all();
  }

  void didDisconnect(const ZPKDataChannelManagerPtr& /*manager*/,
                     const ZPKDataChannelPtr& /*channel*/, const ZPKErrorPtr& /*error*/) override {
    const std::lock_guard guard(_mutex);
    _isOver = true;
    _hasChanged.notify_all();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _hasChanged;
  std::deque<ZPKObjectPtr> _objects;
  bool _isOver = false;
};

// A number, where the text is one.
ZPKValue valueFrom(const std::string& text) {
  double number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure == std::errc() && end == text.data() + text.size()) return number;
  return text;
}

// Null for what is no request.
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

// None at all if one of them is none.
std::vector<ZPKDictionaryPtr> requestsFrom(int count, char** arguments) {
  std::vector<ZPKDictionaryPtr> requests;
  for (int i = 2; i < count; ++i) {
    requests.push_back(requestFrom(arguments[i]));
    if (requests.back() == nullptr) return {};
  }
  return requests;
}

int fail(const std::string& url, const char* what) {
  std::fprintf(stderr, "ask: %s: %s\n", url.c_str(), what);
  return kConversationFailed;
}

// Asks one question after the other.
int converse(const std::string& url, const std::vector<ZPKDictionaryPtr>& requests,
             const ZPKDataChannelPtr& channel, Answers& answers) {
  ZPKDataDefaultSerializer serializer;
  for (const ZPKDictionaryPtr& request : requests) {
    std::printf("%s\n", request->debugDescription().c_str());
    std::fflush(stdout);
    if (!channel->write(serializer.serialize(request))) return fail(url, "cannot send");
    const ZPKObjectPtr answer = answers.next();
    if (answer == nullptr) return fail(url, answers.isOver() ? "hung up" : "no answer");
    std::printf("    %s\n", answer->debugDescription().c_str());
    std::fflush(stdout);
  }
  return kSuccess;
}

int ask(const std::string& url, const std::vector<ZPKDictionaryPtr>& requests) {
  ZPKErrorPtr error;
  const ZPKDataChannelPtr connection = createBaseChannelWithTransport(url, &error);
  if (connection == nullptr) return fail(url, error->description().c_str());
  const ZPKDataChannelPtr channel = framed(connection);
  if (!channel->openWithTimeout(kPatience.count())) return fail(url, "no connection");
  const auto answers = std::make_shared<Answers>();
  const auto manager = ZPKDataChannelManager::managerWithDataChannel(channel, answers);
  if (!manager->listen()) return fail(url, "no thread to listen on");
  const int status = converse(url, requests, channel, *answers);
  manager->disconnect();
  answers->waitForTheEnd();
  return status;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--help") {
    std::fputs(kHelp, stdout);
    return kSuccess;
  }
  const std::vector<ZPKDictionaryPtr> requests = requestsFrom(count, arguments);
  if (requests.empty()) {
    std::fputs(kHelp, stderr);
    return kBadUsage;
  }
  // Every failure is printed once, by fail; the library's log would say it again, and tell of the
  // end of each conversation besides.
  ZPKLoggingSetSink([](int /*level*/, std::string_view /*line*/) {});
  return ask(arguments[1], requests);
}
