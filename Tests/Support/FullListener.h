#pragma once

#include <functional>
#include <string>

#include "Support/TemporaryFolder.h"

namespace support {

/// A listener with a full backlog: a connect waits until there is room or the listener is closed.
class FullListener {
 public:
  enum class Kind { kTCP, kUnix };

  explicit FullListener(Kind kind);
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;
  ~FullListener();

  /// "tcp://127.0.0.1:40123" or "unix:///tmp/...".
  const std::string& url() const { return _url; }
  int port() const { return _port; }
  std::string path() const { return _folder.pathOf("full"); }

  /// Accepts the connection that fills the backlog. Over TCP the system tries again within a
  /// second.
  void makeRoom();
  /// Stops listening.
  void goAway();

 private:
  TemporaryFolder _folder;
  std::string _url;
  int _port = 0;
  int _listener = -1;
  int _filling = -1;
  int _taken = -1;
};

/// Runs `connect` on this thread while a second thread sends it signals, whose handler is installed
/// without SA_RESTART. Once a connect(2) has been interrupted and a few more signals have arrived,
/// the second thread calls `then`.
void connectUnderSignals(const std::function<void()>& connect, const std::function<void()>& then);

}  // namespace support
