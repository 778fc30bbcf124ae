/// @file
/// A server on a TCP port.
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
/// A shared ZPKTCPServer.
using ZPKTCPServerPtr = std::shared_ptr<ZPKTCPServer>;

/// A small accept loop: it listens on a TCP port, or on a socket that the caller provides, and
/// passes each connection to a callback on a thread of its own (accept(2)). On a port it listens on
/// all interfaces and serves anybody; to serve only this machine, bind a socket to 127.0.0.1 and
/// use startWithSocket.
///
///     new --start--> running --stop--> stopped, for good
///
/// A stopped server cannot be used again: a new start reports success, but its thread ends
/// immediately, and connections are not accepted until stop is called again. Create a new server.
/// A start on a running server is not rejected either: the new listener replaces the first, whose
/// thread continues, cannot be stopped, and passes its connections to the new callback. Start each
/// server only one time.
///
/// The callback runs on the accept thread, and the next connection is accepted when it returns; to
/// serve a connection for longer, pass it to another thread. The callback owns the connection,
/// which outlives the server: nobody else closes it. If the callback is null, connections are
/// closed. The callback must not throw, and must not call stop, which would wait for the thread
/// that the callback runs on.
///
/// A program that is started by exec(2) inherits neither the listening socket nor a connection (see
/// FD_CLOEXEC in fcntl(2)). To pass a connection to such a program, clear the flag or use dup2(2).
///
/// A failed accept prints one line, "Error : Failed to accept socket - '...' (errno)", on standard
/// output and is tried again immediately, without limit: a process without free descriptors prints
/// until it has some. stop wakes the thread with a failed accept and so prints that line too.
///
/// The accept thread holds the server: stop ends the thread, releasing the server does not. If the
/// thread could not be started, the start still reports success, but nothing is accepted; the only
/// sign is a log line, "Failed to start thread". stop then closes the listener.
///
/// start and stop may be called on any thread, but not on two at the same time. The accessors may
/// be called on any thread, except listenThread and its setter during start and stop.
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
  /// Gets a connected socket, which the callback owns and exec(2) closes.
  using ResponseBlock = std::function<void(int32_t)>;
  /// Gets an open channel over the connection; closing the channel closes the connection.
  using ConnectionBlock = std::function<void(const ZPKDataChannelPtr&)>;

  /// A server that does not listen.
  static ZPKTCPServerPtr init();

  explicit ZPKTCPServer(Key);
  ZPKTCPServer(const ZPKTCPServer&) = delete;
  ZPKTCPServer& operator=(const ZPKTCPServer&) = delete;
  /// Does not stop the server.
  ~ZPKTCPServer() override;

  /// Listens on a port of all interfaces (see passive_tcp, with `reuse`). 0 or null lets the system
  /// choose; only the low 16 bits count. Another listener that reuses ports too, such as a second
  /// server, silently shares the port.
  ///
  /// Fails with domain "zephal-communication", code 4 if isListening is true, which only a caller
  /// can have set, and code 7 if the port cannot be bound; the line that passive_tcp prints shows
  /// the reason.
  bool startOnPort(const std::optional<ZPKNumber>& port, ConnectionBlock onConnection,
                   ZPKErrorPtr* error = nullptr);

  /// Accepts on a blocking socket of any family that is already listening. The server takes it
  /// over: stop closes it, and ends the listening also for other descriptors of the same socket.
  /// Programs that are started no longer inherit it, unless it is standard input, output or error.
  /// Fails like startOnPort, with code 7 for -1; any other value is accepted unchecked.
  bool startWithSocket(int32_t socket, ResponseBlock onConnection, ZPKErrorPtr* error = nullptr);

  /// Stops listening and waits for the accept thread, and so for a running callback. Connections
  /// that were passed on stay open; those still in the system's backlog are lost.
  ///
  /// The number of the listening socket becomes free before the thread has ended. So do not let
  /// another thread open a listening socket in the meantime: one that got the number could lose a
  /// connection to this server, and keep stop waiting for it.
  ///
  /// Fails with domain "zephal-communication", code 7 and the text of a failed start, and does
  /// nothing, if the server was stopped before, if its start failed, or if it was never started.
  bool stop(ZPKErrorPtr* error = nullptr) override;

  /// @name Accessors
  /// If you set one, make sure that you know what this does to the loop.
  /// @{

  /// The accept thread; zero if there is none to wait for.
  pthread_t listenThread() const;
  /// Replaces the thread that stop joins; zero means none.
  void setListenThread(pthread_t thread);
  /// The listening socket: 0 before the first start, -1 after a failed one and after stop.
  int32_t handle() const;
  /// Replaces the socket that stop closes; the thread keeps the one it was started with.
  void setHandle(int32_t handle);
  /// False, also while the server listens. If a caller sets it, every start fails.
  bool isListening() const;
  /// Sets what isListening returns, and starts or stops nothing.
  void setIsListening(bool listening);
  /// Whether the accept thread must end as soon as its current accept or callback has returned. Set
  /// by stop, and never cleared by the server.
  bool shouldCancel() const;
  /// Sets whether the accept thread must end; it does not wake a thread that waits in accept(2).
  void setShouldCancel(bool cancel);
  /// The callback that gets an accepted socket; null before the first start and after stop.
  ResponseBlock responseBlock() const;
  /// Replaces the callback, from the next connection on; with null, connections are closed.
  void setResponseBlock(ResponseBlock block);

  /// @}

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
  // Shared with a running call, so that a callback with state keeps it from call to call.
  ZPKAtomic<std::shared_ptr<const ResponseBlock>> _responseBlock;
};

/// A new server, started with ZPKTCPServer::startOnPort. Never null: only the slot shows a failed
/// start.
ZPK_EXPORT ZPKTCPServerPtr startTCPServerOnPort(const std::optional<ZPKNumber>& port,
                                                ZPKTCPServer::ConnectionBlock onConnection,
                                                ZPKErrorPtr* error = nullptr);

/// A new server, started with ZPKTCPServer::startWithSocket; likewise never null.
ZPK_EXPORT ZPKTCPServerPtr startTCPOnSocket(int32_t socket,
                                            ZPKTCPServer::ResponseBlock onConnection,
                                            ZPKErrorPtr* error = nullptr);
