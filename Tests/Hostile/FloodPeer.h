#pragma once

#include <string>
#include <thread>

#include "Support/TemporaryFolder.h"

/// A device at the other end of a connection that sends a flood and what ends it, on a thread of
/// its own, and stays connected. It reads nothing, unless it waits for a command first.
class FloodPeer {
 public:
  enum class Kind { kUnix, kTelnet };
  enum class Start { kAtOnce, kAfterALine };

  /// The text, which it does not copy, must outlive it.
  FloodPeer(Kind kind, Start start, const std::string& text, std::string end);
  FloodPeer(const FloodPeer&) = delete;
  FloodPeer& operator=(const FloodPeer&) = delete;
  ~FloodPeer();

  const std::string& url() const { return _url; }

 private:
  void serve(Start start) const;
  bool send(const std::string& text) const;

  const support::TemporaryFolder _folder;
  const std::string& _text;
  const std::string _end;
  int _listener = -1;
  mutable int _line = -1;
  std::string _url;
  std::thread _thread;
};
