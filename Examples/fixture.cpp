// A test fixture's power rails, served over TCP to several clients at once. Requests and answers
// are dictionaries: {"do": "set", "rail": "vbat", "volts": 3.8}. Prints its URL and serves until it
// gets SIGTERM or SIGINT. No client can keep it from ending, or fill its memory.
#include <ZephalIO/ZephalIO.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Common.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr const char* kHelp =
    R"(usage: fixture [OPTION]... [PORT]

Plays a test fixture with the power rails 3V3 and vbat on a TCP port, by default a
free one, which only this machine can reach. Prints its URL and serves until it gets
SIGTERM or SIGINT. Accepts the requests {"do": "get", "rail": R} and {"do": "set",
"rail": R, "volts": V}; both are answered with {"ok": true, "rail": R, "volts": V}, or
with {"ok": false, "reason": W}. Serves 32 clients at once and refuses more.

  --idle S   seconds after which a client that has sent no whole request, or does not
             read its answer, is disconnected [300]
  --help     print this
  --version  print the version

Exit status: 0 if it was told to end, 1 if it could not listen, 2 for wrong usage.
)";

constexpr size_t kMostClients = 32;

// What one client can make us buffer: a packet, whose size takes two bytes; the objects in it, 4 MB
// if they are nothing but nested dictionaries; and what the system has buffered of the next
// packets. Nothing reads ahead, so if a client does not read its answers, its requests are not read
// either.
constexpr int32_t kSizeBytes = 2;
constexpr int kSystemBuffer = 64 * 1024;

// A manager takes each read for one object, so the packets must be whole.
ZPKDataChannelPtr framed(const ZPKDataChannelPtr& connection) {
  return createChannelTransformerWithPreCall(connection,
                                             {createPacketAggregatorTransformer(kSizeBytes)},
                                             {createPacketPrependTransformer(kSizeBytes)});
}

/// A client as seen from outside its thread. The second descriptor of its socket is ours, so
/// cutting the connection off, which ends a read and a write at once, can never hit anybody else's
/// socket.
class Client {
 public:
  explicit Client(int socket) : _socket(::fcntl(socket, F_DUPFD_CLOEXEC, 0)) {}
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() {
    if (isReachable()) ::close(_socket);
  }

  bool isReachable() const { return _socket >= 0; }
  void cutOff() const { ::shutdown(_socket, SHUT_RDWR); }
  void noteRequest() { _lastRequest = Clock::now(); }
  bool isIdleFor(Seconds time) const { return Clock::now() - _lastRequest > time; }

 private:
  const int _socket;
  Clock::time_point _lastRequest = Clock::now();
};

/// Serves all clients. It is the delegate of one manager per client, so its functions are called on
/// as many threads.
class Fixture final : public ZPKDataChannelManagerDelegate,
                      public std::enable_shared_from_this<Fixture> {
 public:
  /// Takes over a socket and starts serving its client, on a thread of its own.
  void serve(int32_t socket) {
    const ZPKDataChannelPtr channel = framed(createActiveTCPChannelWithSocket(socket));
    const auto manager = ZPKDataChannelManager::managerWithDataChannel(channel, shared_from_this());
    const std::lock_guard guard(_mutex);
    if (_clients.size() == kMostClients) {
      send(channel, refusal("too many clients"));
    } else {
      const auto client = _clients.try_emplace(manager, socket).first;
      if (client->second.isReachable() && manager->listen()) return;
      _clients.erase(client);
    }
    channel->close();
  }

  void sendAwayIdleClients(Seconds limit) {
    const std::lock_guard guard(_mutex);
    for (const auto& [manager, client] : _clients) {
      if (client.isIdleFor(limit)) client.cutOff();
    }
  }

  /// Hangs up on all clients; returns when the last one has been dealt with.
  void disconnect() {
    std::unique_lock lock(_mutex);
    for (const auto& [manager, client] : _clients) client.cutOff();
    _hasChanged.wait(lock, [this] { return _clients.empty(); });
  }

  /// Empty data is not a failure: part of a packet came, or nothing for a long time.
  bool shouldDeserializeData(const ZPKDataChannelManagerPtr& /*manager*/,
                             const ZPKDataChannelPtr& /*channel*/,
                             const ZPKDataPtr& data) override {
    return data == nullptr || data->length() > 0;
  }

  void didReceiveMessage(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                         const ZPKObjectPtr& message) override {
    const auto request = ZPKObjectCast<ZPKDictionary>(message);
    const ZPKDictionaryPtr answer =
        request != nullptr ? answerTo(*request) : refusal("not a dictionary");
    if (send(channel, answer)) {
      noteRequest(manager);
    } else {
      // Nobody reads the answers to the requests that are still buffered.
      channel->close();
      channel->reset();
    }
  }

  /// The client has gone, was sent away, or sent something that is not an object: in the last case
  /// its channel is still open.
  void didDisconnect(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                     const ZPKErrorPtr& /*error*/) override {
    if (channel->isOpened()) channel->close();
    const std::lock_guard guard(_mutex);
    _clients.erase(manager);
    _hasChanged.notify_all();
  }

 private:
  static bool send(const ZPKDataChannelPtr& channel, const ZPKDictionaryPtr& answer) {
    return channel->write(ZPKDataDefaultSerializer::init()->serialize(answer));
  }

  static ZPKDictionaryPtr refusal(std::string_view reason) {
    return ZPKDictionary::init({{"ok", false}, {"reason", reason}});
  }

  ZPKDictionaryPtr answerTo(const ZPKDictionary& request) {
    const std::string what = request.string("do").value_or("");
    const std::lock_guard guard(_mutex);
    const auto rail = _volts.find(request.string("rail").value_or(""));
    if (rail == _volts.end()) return refusal("no such rail");
    if (what == "set") {
      const std::optional<double> volts = request.real("volts");
      if (!volts.has_value()) return refusal("how many volts?");
      rail->second = *volts;
    } else if (what != "get") {
      return refusal("no such request");
    }
    return ZPKDictionary::init({{"ok", true}, {"rail", rail->first}, {"volts", rail->second}});
  }

  void noteRequest(const ZPKDataChannelManagerPtr& manager) {
    const std::lock_guard guard(_mutex);
    _clients.at(manager).noteRequest();
  }

  std::mutex _mutex;
  std::condition_variable _hasChanged;
  std::map<ZPKDataChannelManagerPtr, Client> _clients;
  std::map<std::string, double> _volts{{"3V3", 3.3}, {"vbat", 4.2}};
};

struct Call {
  int port = 0;
  Seconds idleLimit{300};
};

Call callFrom(int count, char** words) {
  Call call;
  CommandLine line(count, words, kHelp, {{"idle", required_argument, nullptr, 'i'}});
  while (line.nextOption() != 0) call.idleLimit = Seconds(line.seconds());
  if (line.hasWords()) call.port = line.numberWord("PORT", 0, 65535);
  line.end();
  return call;
}

int fail(int port, const std::string& reason) {
  std::fprintf(stderr, "fixture: port %d: %s\n", port, reason.c_str());
  return kRefused;
}

// Listens; -1, with errno, if that fails. Accepted sockets inherit these buffer sizes.
int listenerWithSmallBuffers(int port) {
  const int listener = listenOnLoopback(port);
  if (listener < 0) return -1;
  for (const int buffer : {SO_RCVBUF, SO_SNDBUF}) {
    ::setsockopt(listener, SOL_SOCKET, buffer, &kSystemBuffer, sizeof kSystemBuffer);
  }
  return listener;
}

int serve(const Call& call) {
  // Every thread started from here on leaves these signals to the loop below.
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGTERM);
  ::sigaddset(&ends, SIGINT);
  ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  const int listener = listenerWithSmallBuffers(call.port);
  if (listener < 0) return fail(call.port, std::strerror(errno));
  const auto fixture = std::make_shared<Fixture>();
  const auto server =
      startTCPOnSocket(listener, [&fixture](int32_t socket) { fixture->serve(socket); });
  std::printf("%s\n", urlOfListener(listener).c_str());
  std::fflush(stdout);

  constexpr timespec kLookEvery{0, 200'000'000};
  while (::sigtimedwait(&ends, nullptr, &kLookEvery) < 0) {
    fixture->sendAwayIdleClients(call.idleLimit);
  }
  server->stop();
  fixture->disconnect();
  return kDone;
}

}  // namespace

int main(int count, char** words) { return serve(callFrom(count, words)); }
