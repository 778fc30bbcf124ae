#include "Peers/GensioPeer.h"

#ifndef ZEPHALIO_PEERS_GENSIO

PeerPtr openGensioPeer(const Conversation& /*conversation*/) {
  leaveContest("missing", "libgensio-dev");
}

#else

#include <gensio/gensio.h>
#include <gensio/gensio_os_funcs_public.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <utility>

namespace {

void check(int error, const char* what) {
  if (error != 0) leaveContest("failed", std::string(what) + ": " + gensio_err_to_str(error));
}

// One for all connections.
gensio_os_funcs* operatingSystem() {
  static gensio_os_funcs* functions = nullptr;
  if (functions != nullptr) return functions;
  check(gensio_default_os_hnd(GENSIO_DEF_WAKE_SIG, &functions), "gensio_default_os_hnd");
  gensio_os_proc_data* process = nullptr;
  check(gensio_os_proc_setup(functions, &process), "gensio_os_proc_setup");
  return functions;
}

std::string nameOfGensio(const Conversation& conversation) {
  const Endpoint& device = conversation.device;
  const std::string room = conversation.isBulk() ? "readbuf=65536" : "readbuf=1024";
  switch (device.transport) {
    case Transport::Pty: return "serialdev(" + room + ")," + device.path + ",115200n81,local";
    case Transport::Unix: return "unix(" + room + ")," + device.path;
    case Transport::Tcp:
      return "tcp(nodelay=true," + room + "),127.0.0.1," + std::to_string(device.port);
  }
  return "";
}

class GensioPeer final : public Peer {
 public:
  explicit GensioPeer(const Conversation& conversation) : _delimiter(conversation.delimiter) {
    const std::string name = nameOfGensio(conversation);
    check(str_to_gensio(name.c_str(), operatingSystem(), nullptr, nullptr, &_gensio), "no gensio");
    check(gensio_set_sync(_gensio), "gensio_set_sync");
    check(gensio_open_s(_gensio), "gensio_open_s");
  }

  ~GensioPeer() override {
    gensio_close_s(_gensio);
    gensio_free(_gensio);
  }

  void write(std::string_view command) override {
    std::string line(command);
    line += '\n';
    gensio_time timeout{kPeerTimeout, 0};
    check(gensio_write_s(_gensio, nullptr, line.data(), line.size(), &timeout), "gensio_write_s");
  }

  size_t readResponse() override {
    size_t searched = _head;
    for (;;) {
      const size_t found = _buffer.find(_delimiter, searched);
      if (found != std::string::npos) return take(found + _delimiter.size() - _head);
      searched = std::max(_head, _buffer.size() - std::min(_buffer.size(), _delimiter.size() - 1));
      searched -= compact();
      readMore();
    }
  }

 private:
  size_t take(size_t length) {
    const std::string response(_buffer, _head, length);
    useBytes(response.data());
    _head += length;
    return length;
  }

  // Drops what was returned, and returns how far the rest moved.
  size_t compact() {
    _buffer.erase(0, _head);
    return std::exchange(_head, 0);
  }

  void readMore() {
    std::array<char, 65536> chunk;
    gensiods count = 0;
    gensio_time timeout{kPeerTimeout, 0};
    check(gensio_read_s(_gensio, &count, chunk.data(), chunk.size(), &timeout), "gensio_read_s");
    if (count == 0) leaveContest("failed", "timeout");
    _buffer.append(chunk.data(), count);
  }

  gensio* _gensio = nullptr;
  std::string _delimiter;
  std::string _buffer;
  size_t _head = 0;  // where the bytes begin that are not returned yet
};

}  // namespace

PeerPtr openGensioPeer(const Conversation& conversation) {
  return std::make_unique<GensioPeer>(conversation);
}

#endif
