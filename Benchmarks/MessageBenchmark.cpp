// Objects one way over a unix socket, from a thread that serializes and writes to a manager that
// reads, splits packets, deserializes and passes the objects on.
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "Benchmarks.h"
#include "Measure.h"
#include "RawChunk.h"

namespace {

constexpr size_t kMessages = 100000;
constexpr size_t kMessageLength = 100;
constexpr size_t kField = 4;  // the size in front of a packet

struct SocketPair {
  SocketPair() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) std::exit(1);
    writing = ends[0];
    reading = ends[1];
  }

  int writing;
  int reading;
};

// Has several fields, and an archive of exactly kMessageLength bytes.
ZPKDictionaryPtr message(ZPKDataSerializer& serializer) {
  for (size_t room = 0; room < kMessageLength; ++room) {
    auto result = ZPKDictionary::init(
        {{"name", "dut-7"}, {"slot", 3}, {"ok", true}, {"text", std::string(room, 'x')}});
    if (serializer.serialize(result)->length() == kMessageLength) return result;
  }
  std::exit(1);
}

// --- The plain loop: the same packets, prefixed with their size and extracted again by hand.

void writeRaw(int fd, std::string_view payload) {
  const uint32_t size = htonl(static_cast<uint32_t>(payload.size()));
  for (size_t i = 0; i < kMessages; ++i) {
    std::array<char, kField + kMessageLength> packet{};
    std::memcpy(packet.data(), &size, kField);
    std::memcpy(packet.data() + kField, payload.data(), payload.size());
    if (::write(fd, packet.data(), packet.size()) != static_cast<ssize_t>(packet.size())) {
      std::exit(1);
    }
  }
}

// Moves the complete packets from the front, each into a heap block of its own.
size_t takePackets(std::string& held) {
  size_t count = 0;
  size_t head = 0;
  while (held.size() - head >= kField) {
    uint32_t size = 0;
    std::memcpy(&size, held.data() + head, kField);
    size = ntohl(size);
    if (held.size() - head - kField < size) break;
    void* block = std::malloc(size);
    std::memcpy(block, held.data() + head + kField, size);
    asm volatile("" : : "r"(block) : "memory");
    std::free(block);
    head += kField + size;
    ++count;
  }
  held.erase(0, head);
  return count;
}

double secondsRaw(std::string_view payload) {
  const SocketPair sockets;
  const double seconds = secondsFor([&] {
    std::thread writer([&] { writeRaw(sockets.writing, payload); });
    std::string held;
    for (size_t count = 0; count < kMessages; count += takePackets(held)) {
      const RawChunk chunk = readRawChunk(sockets.reading, {10, 0});
      if (chunk.length == 0) std::exit(1);
      held.append(chunk.bytes, chunk.length);
      std::free(chunk.bytes);
    }
    writer.join();
  });
  ::close(sockets.writing);
  ::close(sockets.reading);
  return seconds;
}

// --- The library.

class Receiver final : public ZPKDataChannelManagerDelegate {
 public:
  std::future<void> allCame() { return _allCame.get_future(); }
  std::future<void> ended() { return _ended.get_future(); }

 private:
  // Empty data means that a packet is not complete yet.
  bool shouldDeserializeData(const ZPKDataChannelManagerPtr& /*manager*/,
                             const ZPKDataChannelPtr& /*dataChannel*/,
                             const ZPKDataPtr& data) override {
    return data == nullptr || data->length() > 0;
  }
  void didReceiveMessage(const ZPKDataChannelManagerPtr& /*manager*/,
                         const ZPKDataChannelPtr& /*dataChannel*/,
                         const ZPKObjectPtr& /*message*/) override {
    if (++_count == kMessages) _allCame.set_value();
  }
  void didDisconnect(const ZPKDataChannelManagerPtr& /*manager*/,
                     const ZPKDataChannelPtr& /*dataChannel*/,
                     const ZPKErrorPtr& /*error*/) override {
    if (_count < kMessages) std::exit(1);
    _ended.set_value();
  }

  size_t _count = 0;
  std::promise<void> _allCame;
  std::promise<void> _ended;
};

ZPKDataChannelPtr readingEnd(int socket, bool isActive) {
  ZPKDataChannelPtr channel = createActiveTCPChannelWithSocket(socket);
  if (isActive) channel = createActiveChannel(channel);
  return createChannelTransformerWithPreCall(channel, {createPacketAggregatorTransformer(kField)},
                                             {});
}

ZPKDataChannelPtr writingEnd(int socket) {
  return createChannelTransformer(createActiveTCPChannelWithSocket(socket), {},
                                  {createPacketPrependTransformer(kField)});
}

void writeMessages(ZPKDataChannel& channel, ZPKDataSerializer& serializer,
                   const ZPKObjectPtr& object) {
  for (size_t i = 0; i < kMessages; ++i) {
    if (!channel.write(serializer.serialize(object))) std::exit(1);
  }
}

double secondsOurs(ZPKDataSerializer& serializer, const ZPKObjectPtr& object, bool isActive) {
  const SocketPair sockets;
  const auto receiver = std::make_shared<Receiver>();
  std::future<void> allCame = receiver->allCame();
  std::future<void> ended = receiver->ended();
  const ZPKDataChannelPtr writing = writingEnd(sockets.writing);
  const ZPKDataChannelPtr reading = readingEnd(sockets.reading, isActive);
  const auto manager = ZPKDataChannelManager::managerWithDataChannel(reading, receiver);
  const double seconds = secondsFor([&] {
    manager->listen();
    std::thread writer([&] { writeMessages(*writing, serializer, object); });
    allCame.get();
    writer.join();
  });
  writing->close();
  ended.get();  // the loop ends when the other side does
  return seconds;
}

void run(const char* what, bool isActive, int rounds) {
  const auto serializer = ZPKDataDefaultSerializer::init();
  const ZPKDictionaryPtr object = message(*serializer);
  const ZPKDataPtr archive = serializer->serialize(object);
  const Contest contest = compareTimed(
      rounds, [&] { return secondsRaw(archive->view()); },
      [&] { return secondsOurs(*serializer, object, isActive); });
  printRow(what, "reported", eachOf(contest, kMessages, "raw", "library"));
}

}  // namespace

void benchmarkMessages(int rounds) {
  printHeader("Messages of 100 bytes one way over a unix socket, rate against plain packets");
  ZPKLoggingSetSink([](int, std::string_view) {});  // each round ends with the peer hanging up
  run("manager on the socket", false, rounds);
  run("manager on an active channel", true, rounds);
  ZPKLoggingSetSink({});
}
