#include "Peers/AsioPeer.h"

#ifndef ZEPHALIO_PEERS_ASIO

PeerPtr openAsioPeer(const Conversation& /*conversation*/) {
  leaveContest("missing", "libasio-dev");
}

#else

#include <asio.hpp>
#include <chrono>
#include <utility>

namespace {

// One for all connections.
asio::io_context& context() {
  static asio::io_context context(1);  // a hint that one thread runs it
  return context;
}

template <typename Stream>
class AsioPeer final : public Peer {
 public:
  AsioPeer(Stream stream, const Conversation& conversation)
      : _stream(std::move(stream)), _delimiter(conversation.delimiter) {
    if (conversation.isBulk()) _buffer.prepare(65536);  // it reads no more than there is room for
  }

  void write(std::string_view command) override {
    std::string line(command);
    line += '\n';
    std::error_code error;
    asio::async_write(_stream, asio::buffer(line),
                      [&](const std::error_code& result, size_t) { error = result; });
    run(error);
  }

  size_t readResponse() override {
    size_t length = bufferedResponse();
    if (length == 0) {
      std::error_code error;
      asio::async_read_until(_stream, _buffer, _delimiter,
                             [&](const std::error_code& result, size_t count) {
                               error = result;
                               length = count;
                             });
      run(error);
    }
    const std::string response(buffered().substr(0, length));
    useBytes(response.data());
    _buffer.consume(length);
    return length;
  }

 private:
  std::string_view buffered() const {
    return {static_cast<const char*>(_buffer.data().data()), _buffer.size()};
  }

  // A response that is in the buffer already needs no operation.
  size_t bufferedResponse() const {
    const size_t found = buffered().find(_delimiter);
    return found == std::string::npos ? 0 : found + _delimiter.size();
  }

  static void run(const std::error_code& error) {
    context().restart();
    context().run_for(std::chrono::seconds(kPeerTimeout));
    if (!context().stopped()) leaveContest("failed", "timeout");
    if (error) leaveContest("failed", error.message());
  }

  Stream _stream;
  std::string _delimiter;
  asio::streambuf _buffer;
};

PeerPtr openTerminal(const Conversation& conversation) {
  asio::serial_port port(context(), conversation.device.path);
  port.set_option(asio::serial_port_base::baud_rate(115200));
  return std::make_unique<AsioPeer<asio::serial_port>>(std::move(port), conversation);
}

PeerPtr openUnix(const Conversation& conversation) {
  using Socket = asio::local::stream_protocol::socket;
  Socket socket(context());
  socket.connect(asio::local::stream_protocol::endpoint(conversation.device.path));
  return std::make_unique<AsioPeer<Socket>>(std::move(socket), conversation);
}

PeerPtr openTcp(const Conversation& conversation) {
  asio::ip::tcp::socket socket(context());
  socket.connect({asio::ip::address_v4::loopback(),
                  static_cast<asio::ip::port_type>(conversation.device.port)});
  socket.set_option(asio::ip::tcp::no_delay(true));
  return std::make_unique<AsioPeer<asio::ip::tcp::socket>>(std::move(socket), conversation);
}

}  // namespace

PeerPtr openAsioPeer(const Conversation& conversation) {
  switch (conversation.device.transport) {
    case Transport::Pty: return openTerminal(conversation);
    case Transport::Unix: return openUnix(conversation);
    case Transport::Tcp: return openTcp(conversation);
  }
  return nullptr;
}

#endif
