#include <ZephalIO/ZephalIO.h>
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>
#include <string>
#include <thread>

// From the socket up: packets of one archive each, and a read that waits for a whole one.
ZPKDataChannelPtr packetsOver(const ZPKDataChannelPtr& line) {
  return createPassiveChannel(createChannelTransformerWithPreCall(
      line, {createPacketAggregatorTransformer(4)}, {createPacketPrependTransformer(4)}));
}

// Answers each dictionary with the sum of its numbers "a" and "b".
void serve(int32_t socket) {
  const auto channel = packetsOver(createActiveTCPChannelWithSocket(socket));
  ZPKDataDefaultSerializer serializer;
  while (const ZPKDataPtr packet = channel->readWithTimeout(60.0)) {
    const auto question = ZPKObjectCast<ZPKDictionary>(serializer.deserialize(packet));
    if (question == nullptr) break;
    const double sum = question->real("a").value_or(0) + question->real("b").value_or(0);
    if (!channel->write(serializer.serialize(ZPKDictionary::init({{"sum", sum}})))) break;
  }
  channel->close();
}

int main() {
  // Only this machine can reach 127.0.0.1. startTCPServerOnPort listens on all interfaces.
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener, 5) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return 1;
  }
  ZPKErrorPtr error;
  const auto server = startTCPOnSocket(
      listener, [](int32_t socket) { std::thread(serve, socket).detach(); }, &error);
  if (error != nullptr) return 1;
  std::printf("tcp://127.0.0.1:%d\n", ::ntohs(address.sin_port));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return server->stop(&error) ? 0 : 1;
}
