#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "Data Server/ZPKTCPServer.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/StandardOutputCapture.h"

namespace support {

/// What a server reports when it fails to start, or when it is stopped without having started.
extern const ExpectedFailure kFailedStart;

/// The line printed for an accept that failed with the errno `number`.
std::string acceptLine(int number);

/// The port of a socket.
int portOf(int socket);

/// The client's end of a connection, closed at the end of a test.
class Client {
 public:
  explicit Client(int port);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client();

  void send(const std::string& text) const;
  /// The next data; "" if the server's side closed, or if nothing arrived in time.
  std::string receive() const;
  bool sawTheEnd() const;
  int socket() const { return _socket; }

 private:
  const int _socket;
};

/// What callbacks were given, closed at the end of a test.
class Arrivals {
 public:
  Arrivals() = default;
  Arrivals(const Arrivals&) = delete;
  Arrivals& operator=(const Arrivals&) = delete;
  ~Arrivals();

  ZPKTCPServer::ResponseBlock takeSockets();
  ZPKTCPServer::ConnectionBlock takeChannels();
  size_t count() const;
  bool waitForCount(size_t wanted) const;
  int socket(size_t index = 0) const;
  ZPKDataChannelPtr channel(size_t index = 0) const;

 private:
  mutable std::mutex _mutex;
  std::vector<int> _sockets;
  std::vector<ZPKDataChannelPtr> _channels;
};

/// For tests of a server. Keeps the lines of stops and failed starts out of the output of the
/// tests.
class TCPServerFixture : public testing::Test {
 protected:
  std::string printed() const { return _output.text(); }

  /// Expects `server` to look like any server that can no longer be used.
  static void expectIdle(const ZPKTCPServer& server, bool wasStopped);

  LogCapture _log;
  Arrivals _arrivals;  // outlives the servers of a test

 private:
  const StandardOutputCapture _output;
};

}  // namespace support
