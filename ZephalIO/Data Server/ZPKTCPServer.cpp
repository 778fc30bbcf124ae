#include "Data Server/ZPKTCPServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "Utility/ZPITCPSocketFunctions.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPKReportFailure.h"

namespace {

bool reportFailedStart(ZPKErrorPtr* error, const ZPIFailureSite& site) {
  ZPKReportFailure(error, kZPICommunicationDomain, 7, site, "Failed to start server");
  return false;
}

// Also without memory: an exception would end the process on this thread.
void printFailedAccept(int number) {
  std::string text;
  try {
    text = ZPIErrorText(number);
  } catch (const std::bad_alloc&) {
    text = "?";
  }
  std::printf("Error : Failed to accept socket - '%s' (%d)\n", text.c_str(), number);
}

// Null if there is no memory for the channel; the connection is then closed.
ZPKDataChannelPtr channelFor(int32_t connection) {
  try {
    return createActiveTCPChannelWithSocket(connection);
  } catch (const std::bad_alloc&) {
    ::close(connection);
    printFailedAccept(ENOMEM);
    return nullptr;
  }
}

// Null stays null, so that the loop knows that there is nobody to hand its connections to.
ZPKTCPServer::ResponseBlock makeChannelsFor(ZPKTCPServer::ConnectionBlock onConnection) {
  if (!onConnection) return nullptr;
  return [onConnection = std::move(onConnection)](int32_t connection) {
    if (const ZPKDataChannelPtr channel = channelFor(connection)) onConnection(channel);
  };
}

}  // namespace

ZPKTCPServerPtr ZPKTCPServer::init() { return std::make_shared<ZPKTCPServer>(Key()); }

ZPKTCPServer::ZPKTCPServer(Key) {}

ZPKTCPServer::~ZPKTCPServer() { giveUpThread(); }

bool ZPKTCPServer::startOnPort(const std::optional<ZPKNumber>& port, ConnectionBlock onConnection,
                               ZPKErrorPtr* error) {
  if (!checkNotListeningWithError(error)) return false;
  const uint64_t number = port.has_value() ? port->unsignedIntegerValue() : 0;
  setHandle(ZPIPassiveTCP(static_cast<int>(number), true, ZPISocketOwner::kLibrary));
  if (!checkHandleValidWithError(error)) return false;
  try {
    setResponseBlock(makeChannelsFor(std::move(onConnection)));
    waitForConnection();
  } catch (const std::bad_alloc&) {
    ::close(handle());  // the caller gets no server that could close it
    setHandle(-1);
    throw;
  }
  return true;
}

bool ZPKTCPServer::startWithSocket(int32_t socket, ResponseBlock onConnection, ZPKErrorPtr* error) {
  if (!checkNotListeningWithError(error)) return false;
  setHandle(socket);
  if (!checkHandleValidWithError(error)) return false;
  ZPICloseOnExec(socket);
  setResponseBlock(std::move(onConnection));
  waitForConnection();
  return true;
}

bool ZPKTCPServer::stop(ZPKErrorPtr* error) {
  if (!checkHandleValidWithError(error)) return false;
  if (wasNeverStarted()) return reportFailedStart(error, {"-[ZPKTCPServer stop:]"});
  // On Linux close does not wake a thread in accept; shutdown does, with EINVAL. Where close does,
  // the system may refuse to shut down a listening socket, which is fine.
  ::shutdown(handle(), SHUT_RDWR);
  ::close(handle());
  setShouldCancel(true);
  if (isThread(_listenThread)) pthread_join(std::exchange(_listenThread, pthread_t()), nullptr);
  setHandle(-1);
  setResponseBlock(nullptr);
  setIsListening(false);
  return true;
}

pthread_t ZPKTCPServer::listenThread() const { return _listenThread; }

void ZPKTCPServer::setListenThread(pthread_t thread) { _listenThread = thread; }

int32_t ZPKTCPServer::handle() const { return _handle.load(std::memory_order_relaxed); }

void ZPKTCPServer::setHandle(int32_t handle) { _handle.store(handle, std::memory_order_relaxed); }

bool ZPKTCPServer::isListening() const { return _isListening.load(std::memory_order_relaxed); }

void ZPKTCPServer::setIsListening(bool listening) {
  _isListening.store(listening, std::memory_order_relaxed);
}

bool ZPKTCPServer::shouldCancel() const { return _shouldCancel.load(std::memory_order_relaxed); }

void ZPKTCPServer::setShouldCancel(bool cancel) {
  _shouldCancel.store(cancel, std::memory_order_relaxed);
}

ZPKTCPServer::ResponseBlock ZPKTCPServer::responseBlock() const {
  const auto block = _responseBlock.load();
  return block != nullptr ? *block : nullptr;
}

void ZPKTCPServer::setResponseBlock(ResponseBlock block) {
  _responseBlock.store(block ? std::make_shared<const ResponseBlock>(std::move(block)) : nullptr);
}

bool ZPKTCPServer::checkNotListeningWithError(ZPKErrorPtr* error) const {
  if (!isListening()) return true;
  ZPKReportFailure(error, kZPICommunicationDomain, 4,
                   {"-[ZPKTCPServer checkNotListeningWithError:]"},
                   "This server is already listening");
  return false;
}

bool ZPKTCPServer::checkHandleValidWithError(ZPKErrorPtr* error) const {
  if (handle() != -1) return true;
  return reportFailedStart(error, {"-[ZPKTCPServer checkHandleValidWithError:]"});
}

// A new server's handle is 0. That number is standard input and must not be closed.
bool ZPKTCPServer::wasNeverStarted() const { return handle() == 0 && !isThread(_listenThread); }

void ZPKTCPServer::waitForConnection() {
  giveUpThread();
  newThreadWithBlock(&_listenThread, [self = shared_from_this(), listener = handle()] {
    self->acceptOn(listener);
  });
  // The caller is told that the start succeeded, so this failure has no error.
  if (!isThread(_listenThread)) ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Failed to start thread");
}

void ZPKTCPServer::acceptOn(int32_t listener) {
  while (!shouldCancel()) {
    const int connection = ZPIAccept(listener);
    if (connection == -1) {
      printFailedAccept(errno);
      continue;
    }
    handOver(connection);
  }
}

void ZPKTCPServer::handOver(int32_t connection) const {
  const auto block = _responseBlock.load();
  if (block != nullptr) {
    (*block)(connection);
  } else {
    ::close(connection);
  }
}

// Nobody is going to join it.
void ZPKTCPServer::giveUpThread() {
  if (isThread(_listenThread)) pthread_detach(std::exchange(_listenThread, pthread_t()));
}

ZPKTCPServerPtr startTCPServerOnPort(const std::optional<ZPKNumber>& port,
                                     ZPKTCPServer::ConnectionBlock onConnection,
                                     ZPKErrorPtr* error) {
  auto server = ZPKTCPServer::init();
  server->startOnPort(port, std::move(onConnection), error);
  return server;
}

ZPKTCPServerPtr startTCPOnSocket(int32_t socket, ZPKTCPServer::ResponseBlock onConnection,
                                 ZPKErrorPtr* error) {
  auto server = ZPKTCPServer::init();
  server->startWithSocket(socket, std::move(onConnection), error);
  return server;
}
