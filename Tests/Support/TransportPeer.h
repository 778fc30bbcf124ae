#pragma once

#include <string>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// The far end of a transport channel, held by the test itself: it has no thread and does only what
/// the test does. For a device that answers by itself, use SimulatedDevice.
class TransportPeer {
 public:
  enum class Kind { kTerminal, kTCP, kUnix, kAdopted };

  explicit TransportPeer(Kind kind);
  TransportPeer(const TransportPeer&) = delete;
  TransportPeer& operator=(const TransportPeer&) = delete;
  ~TransportPeer();

  /// A new channel to this peer: closed, except over an adopted socket, which is open from the
  /// start and exists only once.
  ZPKDataChannelPtr makeChannel();
  /// Opens the channel, if necessary, and accepts the connection.
  bool open(const ZPKDataChannelPtr& channel);
  /// Whether a channel that was closed can be opened again.
  bool canReopen() const { return _kind != Kind::kAdopted; }

  const std::string& url() const { return _url; }
  /// The device of a terminal.
  std::string path() const { return _url.substr(std::string_view("uart://").size()); }
  /// The far end's descriptor; -1 while nobody is connected.
  int descriptor() const { return _line; }
  /// A descriptor of the near end: the socket to adopt, or the terminal, which is held open here as
  /// well as by its channel.
  int nearEnd() const { return _nearEnd; }

  /// Sends all bytes, and returns once the near end can read them; so nothing may read in the
  /// meantime.
  void send(std::string_view bytes);
  /// Receives exactly this many bytes, or as many as arrive in time.
  std::string receive(size_t count);
  /// Closes its end cleanly.
  void hangUp();

 private:
  void makeTerminal();
  void makeListener();
  void takeConnection();

  const Kind _kind;
  TemporaryFolder _folder;
  std::string _url;
  int _listener = -1;
  int _line = -1;
  int _nearEnd = -1;  // a terminal's, held open; an adopted socket, which its channel closes
};

/// The name of a kind in a test's name.
std::string transportName(TransportPeer::Kind kind);

}  // namespace support
