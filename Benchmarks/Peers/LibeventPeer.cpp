#include "Peers/LibeventPeer.h"

#ifndef ZEPHALIO_PEERS_LIBEVENT

PeerPtr openLibeventPeer(const Conversation& /*conversation*/) {
  leaveContest("missing", "libevent-dev");
}

#else

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/util.h>

#include <memory>
#include <utility>

namespace {

// One for all connections.
event_base* base() {
  static event_base* const base = event_base_new();
  return base;
}

class LibeventPeer final : public Peer {
 public:
  explicit LibeventPeer(const Conversation& conversation) : _delimiter(conversation.delimiter) {
    const int fd = conversation.device.connect();
    evutil_make_socket_nonblocking(fd);
    _event = bufferevent_socket_new(base(), fd, BEV_OPT_CLOSE_ON_FREE);
    if (_event == nullptr) leaveContest("failed", "bufferevent_socket_new");
    bufferevent_setcb(_event, nullptr, nullptr, reportEvent, nullptr);
    const timeval timeout{kPeerTimeout, 0};
    bufferevent_set_timeouts(_event, &timeout, nullptr);
    bufferevent_enable(_event, EV_READ | EV_WRITE);
  }

  ~LibeventPeer() override {
    bufferevent_free(_event);
    evbuffer_free(_begun);
  }

  void write(std::string_view command) override {
    evbuffer* output = bufferevent_get_output(_event);
    evbuffer_add(output, command.data(), command.size());
    evbuffer_add(output, "\n", 1);
  }

  size_t readResponse() override {
    evbuffer* input = bufferevent_get_input(_event);
    for (;;) {
      const evbuffer_ptr found =
          evbuffer_search(input, _delimiter.data(), _delimiter.size(), nullptr);
      if (found.pos >= 0) return take(input, static_cast<size_t>(found.pos) + _delimiter.size());
      putAside(input);
      event_base_loop(base(), EVLOOP_ONCE);
    }
  }

 private:
  // What was searched is moved, which copies next to nothing, and not searched again.
  void putAside(evbuffer* input) {
    const size_t length = evbuffer_get_length(input);
    if (length < _delimiter.size()) return;
    evbuffer_remove_buffer(input, _begun, length - (_delimiter.size() - 1));
  }

  size_t take(evbuffer* input, size_t length) {
    const size_t begun = evbuffer_get_length(_begun);
    const std::unique_ptr<char[]> response(new char[begun + length]);
    evbuffer_remove(_begun, response.get(), begun);
    evbuffer_remove(input, response.get() + begun, length);
    useBytes(response.get());
    return begun + length;
  }

  static void reportEvent(bufferevent* /*event*/, short what, void* /*context*/) {
    leaveContest("failed", (what & BEV_EVENT_TIMEOUT) != 0 ? "timeout" : "the connection ended");
  }

  std::string _delimiter;
  bufferevent* _event = nullptr;
  evbuffer* const _begun = evbuffer_new();  // of a response whose end has not come
};

}  // namespace

PeerPtr openLibeventPeer(const Conversation& conversation) {
  return std::make_unique<LibeventPeer>(conversation);
}

#endif
