// A test fixture's power rails, served over TCP to any number of clients at once. Requests and
// answers are dictionaries: {"do": "set", "rail": "vbat", "volts": 3.8}. Prints its URL and serves
// until it is told to end (SIGTERM, SIGINT).
#include <ZephalIO/ZephalIO.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <charconv>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace {

constexpr const char* kHelp =
    R"(usage: fixture [--help] [PORT]

Plays a test fixture with the power rails 3V3 and vbat on a TCP port, by default one
that is free. Prints its URL and serves until it gets SIGTERM or SIGINT. Takes the
requests {"do": "get", "rail": R} and {"do": "set", "rail": R, "volts": V}; both are
answered with {"ok": true, "rail": R, "volts": V}, or with {"ok": false, "reason": W}.
)";

// The size in front of each packet. Two bytes let a peer that lies make us hold 64 KiB at most.
constexpr int32_t kSizeBytes = 2;

// A manager takes each read for one object, so the packets must be whole. The active channel at the
// bottom allows a disconnect while the manager's thread waits in a read.
ZPKDataChannelPtr framed(const ZPKDataChannelPtr& connection) {
  return createChannelTransformerWithPreCall(createActiveChannel(connection),
                                             {createPacketAggregatorTransformer(kSizeBytes)},
                                             {createPacketPrependTransformer(kSizeBytes)});
}

/// Serves all clients. It is the delegate of a manager for each of them, so its calls come on as
/// many threads.
class Fixture final : public ZPKDataChannelManagerDelegate,
                      public std::enable_shared_from_this<Fixture> {
 public:
  /// Begins to serve a client, on a thread of its own.
  void serve(const ZPKDataChannelPtr& connection) {
    const auto manager =
        ZPKDataChannelManager::managerWithDataChannel(framed(connection), shared_from_this());
    const std::lock_guard guard(_mutex);
    if (manager->listen()) {
      _clients.insert(manager);
    } else {
      manager->disconnect();
    }
  }

  /// Hangs up on all clients; returns when the last one is done with.
  void disconnect() {
    std::unique_lock lock(_mutex);
    for (const ZPKDataChannelManagerPtr& client : _clients) client->disconnect();
    _hasChanged.wait(lock, [this] { return _clients.empty(); });
  }

  /// Empty data are no failure: a part of a packet came, or nothing did for a long time.
  bool shouldDeserializeData(const ZPKDataChannelManagerPtr& /*manager*/,
                             const ZPKDataChannelPtr& /*channel*/,
                             const ZPKDataPtr& data) override {
    return data == nullptr || data->length() > 0;
  }

  void didReceiveMessage(const ZPKDataChannelManagerPtr& /*manager*/,
                         const ZPKDataChannelPtr& channel, const ZPKObjectPtr& message) override {
    const auto request = ZPKObjectCast<ZPKDictionary>(message);
    const ZPKDictionaryPtr answer =
        request != nullptr ? answerTo(*request) : refusal("not a dictionary");
    // A client that has gone ends the manager's loop; the write need not tell.
    channel->write(ZPKDataDefaultSerializer::init()->serialize(answer));
  }

  /// The client has gone, was sent away, or sent what is no object: in the last case its channel is
  /// open still.
  void didDisconnect(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                     const ZPKErrorPtr& /*error*/) override {
    if (channel->isOpened()) manager->disconnect();
    const std::lock_guard guard(_mutex);
    _clients.erase(manager);
    _hasChanged.notify_all();
  }

 private:
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

  std::mutex _mutex;
  std::condition_variable _hasChanged;
  std::set<ZPKDataChannelManagerPtr> _clients;
  std::map<std::string, double> _volts{{"3V3", 3.3}, {"vbat", 4.2}};
};

std::optional<int> portFrom(std::string_view text) {
  int port = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return port >= 0 && port <= 65535 ? std::optional(port) : std::nullopt;
}

int portOf(int listener) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

int serveOnPort(int port) {
  // Every thread that is started from here on leaves these signals to sigwait.
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGTERM);
  ::sigaddset(&ends, SIGINT);
  ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  const auto fixture = std::make_shared<Fixture>();
  ZPKErrorPtr error;
  const auto server = startTCPServerOnPort(
      port, [&fixture](const ZPKDataChannelPtr& connection) { fixture->serve(connection); },
      &error);
  if (error != nullptr) {
    std::fprintf(stderr, "fixture: port %d: %s\n", port, error->description().c_str());
    return 1;
  }
  std::printf("tcp://127.0.0.1:%d\n", portOf(server->handle()));
  std::fflush(stdout);

  int received = 0;
  ::sigwait(&ends, &received);
  server->stop();
  fixture->disconnect();
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--help") {
    std::fputs(kHelp, stdout);
    return 0;
  }
  const std::optional<int> port = count == 2 ? portFrom(arguments[1]) : 0;
  if (count > 2 || !port.has_value()) {
    std::fputs(kHelp, stderr);
    return 2;
  }
  return serveOnPort(*port);
}
