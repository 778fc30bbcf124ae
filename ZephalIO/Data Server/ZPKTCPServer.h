#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Server/ZPKDataServer.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKNumber.h"

class ZPKTCPServer;
using ZPKTCPServerPtr = std::shared_ptr<ZPKTCPServer>;

/// A small accept loop: it listens on a TCP port, or on a socket that it is given, and hands each
/// connection to a callback on a thread of its own. On a port it listens on all interfaces and
/// serves anybody; for this machine alone, bind a socket to 127.0.0.1 and use startWithSocket.
///
///     new --start--> running --stop--> stopped, for good
///
/// A stopped server is dead: a new start on it reports success, but its thread ends at once and
/// nobody accepts until stop is called again. Make a new server. A start on a running server is not
/// refused either: the new listener takes the place of the first, whose thread goes on without
/// anybody who could stop it, and hands what it accepts to the new callback. Start a server once.
///
/// The callback runs on the accept thread, and the next connection is accepted when it returns, so
/// one that wants to go on serving hands the connection to a thread of its own. It owns the
/// connection, which outlives the server: nobody else closes it. A connection that finds no
/// callback, since a null one was given, is closed. The callback must not throw, and must not call
/// stop, which would wait for the very thread that it runs on.
///
/// A program that is started by exec(2) inherits neither the listening socket nor a connection (see
/// FD_CLOEXEC in fcntl(2)). A callback that hands its connection to such a program clears the flag,
/// or passes a copy from dup2(2).
///
/// A failed accept prints one line, "Error : Failed to accept socket - '...' (errno)", on standard
/// output and is tried again at once, without a limit: a process that is out of descriptors prints
/// until it has some. A stop wakes the thread by a failed accept and so prints that line too.
///
/// The accept thread holds the server, so that stop ends it and letting go of the server does not.
/// A server whose thread could not be started reports success all the same, and accepts nothing; a
/// log line, "Failed to start thread", is the one sign of it. stop then closes the listener.
///
/// start and stop may be called on any thread, but not on two at once. The accessors may be called
/// on any thread, but listenThread and its setter not beside start and stop.
///
///     const auto serve = [](const ZPKDataChannelPtr& channel) {
///       std::thread([channel] { talk(channel); }).detach();
///     };
///     ZPKErrorPtr error;
///     const ZPKTCPServerPtr server = startTCPServerOnPort(4000, serve, &error);
///     if (error != nullptr) return report(error);
///     ...
///     server->stop(&error);
class ZPK_EXPORT ZPKTCPServer final : public ZPKDataServer,
                                      public std::enable_shared_from_this<ZPKTCPServer> {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Takes a connected socket, which is open, closed by exec(2), and the callback's own.
  using ResponseBlock = std::function<void(int32_t)>;
  /// Takes an open channel over the connection; its close closes the connection.
  using ConnectionBlock = std::function<void(const ZPKDataChannelPtr&)>;

  /// A server that does not listen.
  static ZPKTCPServerPtr init();

  explicit ZPKTCPServer(Key);
  ZPKTCPServer(const ZPKTCPServer&) = delete;
  ZPKTCPServer& operator=(const ZPKTCPServer&) = delete;
  /// Does not stop the server.
  ~ZPKTCPServer() override;

  /// Listens on a port of all interfaces (see passive_tcp, reuse on). 0, or null, lets the system
  /// choose; only the low 16 bits count. Another listener that reuses ports too, such as a second
  /// server, shares the port without a word.
  ///
  /// Fails with domain "zephal-communication", code 4 if isListening is true, which only a caller
  /// can have set, and 7 if the port cannot be had; the reason is in the line that passive_tcp
  /// prints.
  bool startOnPort(const std::optional<ZPKNumber>& port, ConnectionBlock onConnection,
                   ZPKErrorPtr* error = nullptr);

  /// Accepts on a blocking socket that listens already, of any family. The server takes it over:
  /// stop closes it, and ends its listening also for other descriptors of the same socket. A
  /// program that is started does not inherit it any more, unless its number is that of standard
  /// input, output or error. Fails like startOnPort, with code 7 for -1; any other value is taken
  /// untested.
  bool startWithSocket(int32_t socket, ResponseBlock onConnection, ZPKErrorPtr* error = nullptr);

  /// Ends the listening and waits for the accept thread, and thus for a callback that is running.
  /// Connections that were handed over stay open; those still in the system's backlog are lost.
  ///
  /// The number of the listening socket is free before the thread has ended. So let no other thread
  /// open a listening socket meanwhile: one that got the number could lose a connection to this
  /// server, and keep stop waiting for it.
  ///
  /// Fails with domain "zephal-communication", code 7 and the text of a failed start, and does
  /// nothing, if the server is stopped already, if its start failed, or if it was never started.
  bool stop(ZPKErrorPtr* error = nullptr) override;

  // Accessors. Who sets one behind the server's back knows what that does to the loop.

  /// The accept thread; zero if there is none to wait for.
  pthread_t listenThread() const;
  void setListenThread(pthread_t thread);
  /// The listening socket: 0 before the first start, -1 after a failed one and after stop.
  int32_t handle() const;
  void setHandle(int32_t handle);
  /// False, also while the server listens. A caller who sets it has every start refused.
  bool isListening() const;
  void setIsListening(bool listening);
  /// Whether the accept thread is to end, once the accept or callback that it is in has returned.
  /// Set by stop, cleared by nobody.
  bool shouldCancel() const;
  void setShouldCancel(bool cancel);
  /// What an accepted socket is handed to; null before the first start and after stop.
  ResponseBlock responseBlock() const;
  void setResponseBlock(ResponseBlock block);

 private:
  bool checkNotListeningWithError(ZPKErrorPtr* error) const;
  bool checkHandleValidWithError(ZPKErrorPtr* error) const;
  bool wasNeverStarted() const;
  void waitForConnection();
  void acceptOn(int32_t listener);
  void handOver(int32_t connection) const;
  void giveUpThread();

  std::atomic<bool> _isListening = false;
  std::atomic<bool> _shouldCancel = false;
  std::atomic<int32_t> _handle = 0;
  // Zero, or a thread that was neither joined nor detached.
  pthread_t _listenThread{};
  // Shared with a call that is running, so that a callback with a state keeps it from call to call.
  ZPKAtomic<std::shared_ptr<const ResponseBlock>> _responseBlock;
};

/// A new server after ZPKTCPServer::startOnPort. Never null: a start that failed shows in the slot
/// alone.
ZPK_EXPORT ZPKTCPServerPtr startTCPServerOnPort(const std::optional<ZPKNumber>& port,
                                                ZPKTCPServer::ConnectionBlock onConnection,
                                                ZPKErrorPtr* error = nullptr);

/// A new server after ZPKTCPServer::startWithSocket, likewise.
ZPK_EXPORT ZPKTCPServerPtr startTCPOnSocket(int32_t socket,
                                            ZPKTCPServer::ResponseBlock onConnection,
                                            ZPKErrorPtr* error = nullptr);
