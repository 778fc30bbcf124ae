#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Data Server/ZPKTCPServer.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/StandardOutputCapture.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"
#include "Utility/ZPIUnixSocketFunctions.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const ExpectedFailure kFailedStart{"zephal-communication", 7, "Failed to start server",
                                   "-[ZPKTCPServer checkHandleValidWithError:]",
                                   "ZPKTCPServer.cpp"};
const ExpectedFailure kNeverStarted{"zephal-communication", 7, "Failed to start server",
                                    "-[ZPKTCPServer stop:]", "ZPKTCPServer.cpp"};
const ExpectedFailure kAlreadyListening{
    "zephal-communication", 4, "This server is already listening",
    "-[ZPKTCPServer checkNotListeningWithError:]", "ZPKTCPServer.cpp"};

int portOf(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return ntohs(address.sin_port);
}

std::string acceptLine(int number) {
  return std::string("Error : Failed to accept socket - '") + std::strerror(number) + "' (" +
         std::to_string(number) + ")\n";
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line + "\n");
  return lines;
}

// The client's end of a connection, closed at the end of a test.
class Client {
 public:
  explicit Client(int port) : _socket(active_tcp("127.0.0.1", port)) { EXPECT_GE(_socket, 0); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { ::close(_socket); }

  void send(const std::string& text) const {
    EXPECT_EQ(::send(_socket, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  // What comes next; "" if the server's side closed, or in time nothing came.
  std::string receive() const {
    char buffer[64];
    if (!waitUntilReadable(_socket)) return "";
    const ssize_t count = ::read(_socket, buffer, sizeof buffer);
    return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : "";
  }
  bool sawTheEnd() const {
    char byte = 0;
    return waitUntilReadable(_socket) && ::read(_socket, &byte, 1) == 0;
  }
  int socket() const { return _socket; }

 private:
  const int _socket;
};

// What callbacks were given, closed at the end of a test.
class Arrivals {
 public:
  Arrivals() = default;
  Arrivals(const Arrivals&) = delete;
  Arrivals& operator=(const Arrivals&) = delete;
  ~Arrivals() {
    for (const int socket : _sockets) ::close(socket);
    for (const auto& channel : _channels) channel->close();
  }

  ZPKTCPServer::ResponseBlock takeSockets() {
    return [this](int32_t socket) {
      const std::lock_guard guard(_mutex);
      _sockets.push_back(socket);
    };
  }
  ZPKTCPServer::ConnectionBlock takeChannels() {
    return [this](const ZPKDataChannelPtr& channel) {
      const std::lock_guard guard(_mutex);
      _channels.push_back(channel);
    };
  }
  size_t count() const {
    const std::lock_guard guard(_mutex);
    return _sockets.size() + _channels.size();
  }
  bool waitForCount(size_t wanted) const {
    return waitFor([&] { return count() >= wanted; });
  }
  int socket(size_t index = 0) const {
    const std::lock_guard guard(_mutex);
    return _sockets.at(index);
  }
  ZPKDataChannelPtr channel(size_t index = 0) const {
    const std::lock_guard guard(_mutex);
    return _channels.at(index);
  }

 private:
  mutable std::mutex _mutex;
  std::vector<int> _sockets;
  std::vector<ZPKDataChannelPtr> _channels;
};

// The lines of stops and failed starts stay out of the output of the tests.
class ZPKTCPServerTest : public testing::Test {
 protected:
  std::string printed() const { return _output.text(); }

  // What every server that is of no use any more looks like.
  static void expectIdle(const ZPKTCPServer& server, bool wasStopped) {
    EXPECT_EQ(server.handle(), -1);
    EXPECT_FALSE(server.responseBlock());
    EXPECT_FALSE(server.isListening());
    EXPECT_EQ(server.shouldCancel(), wasStopped);
    EXPECT_TRUE(pthread_equal(server.listenThread(), pthread_t()));
  }

  LogCapture _log;
  Arrivals _arrivals;  // outlives the servers of a test

 private:
  const StandardOutputCapture _output;
};

// --- Connections.

TEST_F(ZPKTCPServerTest, AServerOnAPortGivesAnOpenChannelForEachConnection) {
  ZPKErrorPtr error = olderError();
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels(), &error);
  EXPECT_EQ(error, olderError());
  const Client first(portOf(server->handle()));
  const Client second(portOf(server->handle()));
  ASSERT_TRUE(_arrivals.waitForCount(2));
  for (const auto& [client, index] : {std::pair(&first, 0U), std::pair(&second, 1U)}) {
    const ZPKDataChannelPtr channel = _arrivals.channel(index);
    EXPECT_TRUE(channel->isOpened());
    client->send("ping " + std::to_string(index));
    EXPECT_EQ(channel->readWithTimeout(30)->view(), "ping " + std::to_string(index));
    EXPECT_TRUE(channel->write(ZPKData::dataWithString("pong")));
    EXPECT_EQ(client->receive(), "pong");
  }
  EXPECT_TRUE(_arrivals.channel(0)->close());
  EXPECT_TRUE(first.sawTheEnd());
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(ZPKTCPServerTest, AServerOnASocketGivesABareDescriptor) {
  const int listener = passive_tcp(0, false);
  ZPKErrorPtr error = olderError();
  const auto server = startTCPOnSocket(listener, _arrivals.takeSockets(), &error);
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(server->handle(), listener);
  const Client client(portOf(listener));
  ASSERT_TRUE(_arrivals.waitForCount(1));
  EXPECT_EQ(::send(_arrivals.socket(), "hello", 5, MSG_NOSIGNAL), 5);
  EXPECT_EQ(client.receive(), "hello");
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(isOpenDescriptor(listener));
}

TEST_F(ZPKTCPServerTest, AListeningUnixSocketWillDo) {
  const TemporaryFolder folder;
  const std::string path = folder.pathOf("socket");
  const auto server = startTCPOnSocket(passive_unix(path), _arrivals.takeSockets());
  const int client = active_unix(path);
  EXPECT_TRUE(_arrivals.waitForCount(1));
  ::close(client);
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, ThePortListensOnAllInterfacesAndMayBeReused) {
  const SystemCalls calls;
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  EXPECT_THAT(
      calls.texts({"setsockopt", "bind", "listen"}),
      ElementsAre("setsockopt SOL_SOCKET SO_REUSEADDR 1", "setsockopt SOL_SOCKET SO_REUSEPORT 1",
                  "bind AF_UNSPEC 0.0.0.0:0", "listen 5", "setsockopt IPPROTO_TCP TCP_NODELAY 1"));
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, AStartedProgramInheritsNeitherListenersNorConnections) {
  const std::set<int> before = openDescriptors();
  const int listener = passive_tcp(0, false);
  ASSERT_THAT(inheritedOf({listener}), ElementsAre(listener));
  const auto onPort = startTCPServerOnPort(0, _arrivals.takeChannels());
  const auto onSocket = startTCPOnSocket(listener, _arrivals.takeSockets());
  const Client toPort(portOf(onPort->handle()));
  const Client toSocket(portOf(listener));
  ASSERT_TRUE(_arrivals.waitForCount(2));
  std::set<int> added = descriptorsSince(before);
  EXPECT_EQ(added.size(), 6U);
  added.erase(toPort.socket());
  added.erase(toSocket.socket());
  EXPECT_THAT(inheritedOf(added), IsEmpty());
  EXPECT_TRUE(onPort->stop());
  EXPECT_TRUE(onSocket->stop());
}

TEST_F(ZPKTCPServerTest, AServerLeavesTheDispositionOfSigpipeAlone) {
  const ChildResult result = runInChild([](std::string*) {
    ::signal(SIGPIPE, SIG_DFL);
    const RefusedThreads noThreads;
    const auto server = startTCPServerOnPort(0, [](const ZPKDataChannelPtr&) {});
    if (server->handle() < 0) return 2;
    return ::signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0) << result.message;
}

TEST_F(ZPKTCPServerTest, APortGivenAsANullNumberIsChosenByTheSystem) {
  ZPKErrorPtr error = olderError();
  const auto server = startTCPServerOnPort(std::nullopt, _arrivals.takeChannels(), &error);
  EXPECT_EQ(error, olderError());
  EXPECT_GT(portOf(server->handle()), 0);
  const Client client(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, OnlyTheLow16BitsOfAPortCountWhateverItsKind) {
  const int spare = passive_tcp(0, true);
  const int port = portOf(spare);
  for (const ZPKNumber& number : {ZPKNumber(port), ZPKNumber(port + 65536), ZPKNumber(port + 0.75),
                                  ZPKNumber(port - 65536)}) {
    const auto server = startTCPServerOnPort(number, _arrivals.takeChannels());
    EXPECT_EQ(portOf(server->handle()), port) << number.stringValue();
    EXPECT_TRUE(server->stop());
  }
  ::close(spare);
}

TEST_F(ZPKTCPServerTest, TwoServersShareAPortWithoutAWord) {
  const auto first = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int port = portOf(first->handle());
  ZPKErrorPtr error;
  const auto second = startTCPServerOnPort(port, _arrivals.takeChannels(), &error);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(portOf(second->handle()), port);
  EXPECT_EQ(printed(), "");
  EXPECT_TRUE(first->stop());
  EXPECT_TRUE(second->stop());
}

TEST_F(ZPKTCPServerTest, TheCallbackRunsOnTheAcceptThread) {
  std::mutex mutex;
  std::vector<std::pair<pthread_t, std::thread::id>> threads;
  const auto server = startTCPServerOnPort(0, [&](const ZPKDataChannelPtr& channel) {
    channel->close();
    const std::lock_guard guard(mutex);
    threads.emplace_back(pthread_self(), std::this_thread::get_id());
  });
  const Client first(portOf(server->handle()));
  const Client second(portOf(server->handle()));
  EXPECT_TRUE(first.sawTheEnd());
  EXPECT_TRUE(second.sawTheEnd());
  const pthread_t listenThread = server->listenThread();
  EXPECT_TRUE(server->stop());
  ASSERT_EQ(threads.size(), 2U);
  for (const auto& [thread, id] : threads) {
    EXPECT_TRUE(pthread_equal(thread, listenThread));
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

TEST_F(ZPKTCPServerTest, ASecondConnectionWaitsInTheBacklogWhileTheCallbackBlocks) {
  const SystemCalls calls(SystemCalls::Threads::kAll);
  std::promise<void> release;
  const auto released = release.get_future().share();
  const auto take = _arrivals.takeChannels();
  const auto server = startTCPServerOnPort(0, [&, released](const ZPKDataChannelPtr& channel) {
    take(channel);
    released.wait();
  });
  const Client first(portOf(server->handle()));
  ASSERT_TRUE(_arrivals.waitForCount(1));
  const Client second(portOf(server->handle()));
  second.send("early");
  EXPECT_EQ(calls.count("accept4"), 1U);
  EXPECT_EQ(_arrivals.count(), 1U);
  release.set_value();
  ASSERT_TRUE(_arrivals.waitForCount(2));
  EXPECT_EQ(_arrivals.channel(1)->readWithTimeout(30)->view(), "early");
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, ACallbackWithAStateKeepsItFromCallToCall) {
  std::atomic<int> last = 0;
  const auto server =
      startTCPOnSocket(passive_tcp(0, false), [&last, calls = 0](int32_t socket) mutable {
        ::close(socket);
        last = ++calls;
      });
  for (int i = 1; i <= 3; ++i) {
    const Client client(portOf(server->handle()));
    EXPECT_TRUE(waitFor([&] { return last == i; }));
  }
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, AConnectionThatFindsNoCallbackIsClosed) {
  const auto onPort = startTCPServerOnPort(0, nullptr);
  const auto onSocket = startTCPOnSocket(passive_tcp(0, false), nullptr);
  for (const auto& server : {onPort, onSocket}) {
    for (int i = 0; i < 2; ++i) {
      const Client client(portOf(server->handle()));
      EXPECT_TRUE(client.sawTheEnd());
    }
    EXPECT_TRUE(server->stop());
  }
  EXPECT_TRUE(_log.lines().empty());
}

// --- Starts that fail.

// Listens on a port that it shares with nobody; two listeners that both reuse would share it.
TEST_F(ZPKTCPServerTest, APortInUseGivesAServerThatCannotBeStopped) {
  const int first = passive_tcp(0, false);
  const int port = portOf(first);
  const std::set<int> before = openDescriptors();
  ZPKErrorPtr error = olderError();
  const auto server = startTCPServerOnPort(port, _arrivals.takeChannels(), &error);
  ASSERT_NE(server, nullptr);
  expectFailure(error, _log, kFailedStart);
  EXPECT_EQ(printed(), "Error : port " + std::to_string(port) +
                           " is busy (errno=" + std::to_string(EADDRINUSE) + ")\n");
  EXPECT_EQ(openDescriptors(), before);
  expectIdle(*server, false);
  _log.clear();
  error = olderError();
  EXPECT_FALSE(server->stop(&error));
  expectFailure(error, _log, kFailedStart);
  expectIdle(*server, false);
  ::close(first);
}

TEST_F(ZPKTCPServerTest, AFailedStartWithoutASlotIsLoggedAllTheSame) {
  const int first = passive_tcp(0, false);
  const auto server = ZPKTCPServer::init();
  EXPECT_FALSE(server->startOnPort(portOf(first), _arrivals.takeChannels()));
  EXPECT_FALSE(server->startWithSocket(-1, _arrivals.takeSockets()));
  EXPECT_FALSE(server->stop());
  EXPECT_EQ(_log.count("Failed to start server"), 3U);
  EXPECT_EQ(_log.lines().size(), 3U);
  expectIdle(*server, false);
  ::close(first);
}

int firstOrdinaryPort() {
  int port = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> port;
  return port;
}

// Port 1 of an ordinary user, who may have it only where the system says so.
int startOnAPrivilegedPort(std::string* message) {
  const StandardOutputCapture output;
  const RefusedThreads noThreads;
  ZPKErrorPtr error;
  const auto server = startTCPServerOnPort(
      1, [](const ZPKDataChannelPtr&) {}, &error);
  if (firstOrdinaryPort() <= 1) return server->stop() ? 0 : 1;
  const std::string line = "Error : port 1 is restricted (errno=" + std::to_string(EACCES) + ")\n";
  *message = output.text();
  if (output.text() != line) return 2;
  if (error == nullptr || error->code() != 7) return 3;
  return server->handle() == -1 && !server->stop() ? 0 : 4;
}

TEST_F(ZPKTCPServerTest, APrivilegedPortIsRefusedToAnOrdinaryUser) {
  const ChildResult result = runAsOrdinaryUser(startOnAPrivilegedPort);
  EXPECT_EQ(result.status, 0) << result.message;
}

TEST_F(ZPKTCPServerTest, NoSocketGivesAServerWithoutAThread) {
  const SystemCalls calls(SystemCalls::Threads::kAll);
  ZPKErrorPtr error = olderError();
  const auto server = startTCPOnSocket(-1, _arrivals.takeSockets(), &error);
  ASSERT_NE(server, nullptr);
  expectFailure(error, _log, kFailedStart);
  expectIdle(*server, false);
  EXPECT_EQ(server.use_count(), 1);
  _log.clear();
  EXPECT_FALSE(server->stop(&error));
  expectFailure(error, _log, kFailedStart);
  EXPECT_THAT(calls.texts({"accept4", "shutdown", "close"}), IsEmpty());
}

TEST_F(ZPKTCPServerTest, AServerThatIsSaidToListenRefusesEveryStart) {
  const auto server = ZPKTCPServer::init();
  server->setIsListening(true);
  const int listener = passive_tcp(0, false);
  const SystemCalls calls(SystemCalls::Threads::kAll);
  for (const bool onPort : {true, false}) {
    _log.clear();
    ZPKErrorPtr error = olderError();
    const bool result = onPort ? server->startOnPort(0, _arrivals.takeChannels(), &error)
                               : server->startWithSocket(listener, _arrivals.takeSockets(), &error);
    EXPECT_FALSE(result);
    expectFailure(error, _log, kAlreadyListening);
    EXPECT_FALSE(onPort ? server->startOnPort(0, _arrivals.takeChannels())
                        : server->startWithSocket(listener, _arrivals.takeSockets()));
    EXPECT_EQ(_log.count("This server is already listening"), 2U);
  }
  EXPECT_EQ(server->handle(), 0);
  EXPECT_FALSE(server->responseBlock());
  EXPECT_EQ(server.use_count(), 1);
  EXPECT_THAT(calls.texts({"socket", "accept4", "close"}), IsEmpty());
  server->setIsListening(false);
  EXPECT_TRUE(server->startWithSocket(listener, _arrivals.takeSockets()));
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, AThreadThatCannotBeStartedIsOnlyLogged) {
  const std::set<int> before = openDescriptors();
  ZPKErrorPtr error = olderError();
  const auto server = ZPKTCPServer::init();
  {
    const RefusedThreads refused;
    EXPECT_TRUE(server->startOnPort(0, _arrivals.takeChannels(), &error));
  }
  EXPECT_THAT(_log.lines(), ElementsAre(LogLine{0, "Failed to start thread"}));
  EXPECT_EQ(server.use_count(), 1);
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  expectIdle(*server, true);
  EXPECT_EQ(openDescriptors(), before);
}

// --- accept that fails.

TEST_F(ZPKTCPServerTest, AFailedAcceptIsPrintedAndTriedAgainAtOnce) {
  SystemCalls calls(SystemCalls::Threads::kAll);
  calls.fail("accept4", ECONNABORTED);
  calls.fail("accept4", EINTR);
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const Client client(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_EQ(printed(), acceptLine(ECONNABORTED) + acceptLine(EINTR));
  EXPECT_EQ(calls.count("usleep"), 0U);
  EXPECT_TRUE(_log.lines().empty());
  EXPECT_TRUE(server->stop());
}

void setDescriptorLimit(rlim_t limit) {
  rlimit limits{};
  EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &limits), 0);
  limits.rlim_cur = limit;
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limits), 0);
}

rlim_t descriptorLimit() {
  rlimit limits{};
  EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &limits), 0);
  return limits.rlim_cur;
}

// The first callback takes the process its last descriptors away; ahead of the fifth accept they
// are back.
TEST_F(ZPKTCPServerTest, AServerOutOfDescriptorsGoesOnWhenItHasThemAgain) {
  const rlim_t limit = descriptorLimit();
  SystemCalls calls(SystemCalls::Threads::kAll);
  calls.before(
      "accept4", [limit] { setDescriptorLimit(limit); }, 4);
  std::promise<void> release;
  const auto take = _arrivals.takeSockets();
  const auto server = startTCPOnSocket(
      passive_tcp(0, false), [&, released = release.get_future().share()](int32_t socket) {
        take(socket);
        released.wait();
        if (_arrivals.count() > 1) return;
        const int free = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
        ::close(free);
        setDescriptorLimit(static_cast<rlim_t>(free));
      });
  const Client first(portOf(server->handle()));
  ASSERT_TRUE(_arrivals.waitForCount(1));
  const Client second(portOf(server->handle()));
  release.set_value();
  EXPECT_TRUE(_arrivals.waitForCount(2));
  EXPECT_EQ(descriptorLimit(), limit);
  EXPECT_EQ(printed(), acceptLine(EMFILE) + acceptLine(EMFILE) + acceptLine(EMFILE));
  EXPECT_TRUE(_log.lines().empty());
  EXPECT_TRUE(server->stop());
}

// --- stop.

TEST_F(ZPKTCPServerTest, AStopWakesTheAcceptAndPrintsItsFailure) {
  const SystemCalls calls(SystemCalls::Threads::kAll);
  const std::set<int> before = openDescriptors();
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  ASSERT_TRUE(waitFor([&] { return calls.count("accept4") == 1; }));
  EXPECT_TRUE(server->stop());
  expectIdle(*server, true);
  EXPECT_EQ(server.use_count(), 1);
  EXPECT_EQ(openDescriptors(), before);
  const std::vector<std::string> lines = linesOf(printed());
  EXPECT_THAT(lines, Not(IsEmpty()));
  EXPECT_THAT(lines, Each(AnyOf(acceptLine(EINVAL), acceptLine(EBADF))));
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(ZPKTCPServerTest, AStopClosesBeforeItCancelsAndForgetsAfterTheThreadHasEnded) {
  SystemCalls calls;
  std::promise<void> release;
  const auto take = _arrivals.takeChannels();
  const auto server = startTCPServerOnPort(
      0, [&, released = release.get_future().share()](const ZPKDataChannelPtr& channel) {
        take(channel);
        released.wait();
      });
  const int listener = server->handle();
  const Client client(portOf(listener));
  ASSERT_TRUE(_arrivals.waitForCount(1));
  std::atomic<bool> wasCancelled = true;
  calls.before("close", [&] { wasCancelled = server->shouldCancel(); });
  std::atomic<bool> hasStopped = false;
  // What a stop looks like while a callback holds it up; the callback then returns.
  std::thread observer([&] {
    EXPECT_TRUE(waitFor([&] { return server->shouldCancel(); }));
    EXPECT_FALSE(isOpenDescriptor(listener));
    EXPECT_EQ(server->handle(), listener);
    EXPECT_TRUE(server->responseBlock());
    EXPECT_FALSE(hasStopped);
    release.set_value();
  });
  calls.clear();
  EXPECT_TRUE(server->stop());
  hasStopped = true;
  observer.join();
  EXPECT_FALSE(wasCancelled);
  EXPECT_THAT(calls.texts({"shutdown", "close"}), ElementsAre("shutdown 2", "close"));
  for (const SystemCall& call : calls.all()) EXPECT_EQ(call.descriptor, listener) << call.text;
  expectIdle(*server, true);
}

TEST_F(ZPKTCPServerTest, ASecondStopFailsAndClosesNothing) {
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int listener = server->handle();
  EXPECT_TRUE(server->stop());
  // Somebody else has the number by now.
  ASSERT_EQ(::dup2(STDERR_FILENO, listener), listener);
  const SystemCalls calls;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(server->stop(&error));
  expectFailure(error, _log, kFailedStart);
  EXPECT_FALSE(server->stop());
  EXPECT_EQ(_log.count("Failed to start server"), 2U);
  EXPECT_THAT(calls.texts({"shutdown", "close"}), IsEmpty());
  EXPECT_TRUE(isOpenDescriptor(listener));
  expectIdle(*server, true);
  ::close(listener);
}

TEST_F(ZPKTCPServerTest, AConnectionOutlivesTheStop) {
  const auto onPort = startTCPServerOnPort(0, _arrivals.takeChannels());
  const auto onSocket = startTCPOnSocket(passive_tcp(0, false), _arrivals.takeSockets());
  const Client toPort(portOf(onPort->handle()));
  const Client toSocket(portOf(onSocket->handle()));
  ASSERT_TRUE(_arrivals.waitForCount(2));
  EXPECT_TRUE(onPort->stop());
  EXPECT_TRUE(onSocket->stop());
  EXPECT_TRUE(_arrivals.channel()->isOpened());
  toPort.send("still here");
  EXPECT_EQ(_arrivals.channel()->readWithTimeout(30)->view(), "still here");
  EXPECT_EQ(::send(_arrivals.socket(), "so am I", 7, MSG_NOSIGNAL), 7);
  EXPECT_EQ(toSocket.receive(), "so am I");
}

TEST_F(ZPKTCPServerTest, AStoppedPortIsFreeForOthers) {
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int port = portOf(server->handle());
  EXPECT_TRUE(server->stop());
  const int next = passive_tcp(port, false);
  EXPECT_GE(next, 0);
  ::close(next);
}

TEST_F(ZPKTCPServerTest, AServerThatWasNeverStartedClosesNobodysDescriptor) {
  const auto server = ZPKTCPServer::init();
  EXPECT_EQ(server->handle(), 0);
  const bool hadInput = isOpenDescriptor(STDIN_FILENO);
  const SystemCalls calls;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(server->stop(&error));
  expectFailure(error, _log, kNeverStarted);
  EXPECT_FALSE(server->stop());
  EXPECT_EQ(_log.count("Failed to start server"), 2U);
  EXPECT_THAT(calls.texts({"shutdown", "close"}), IsEmpty());
  EXPECT_EQ(isOpenDescriptor(STDIN_FILENO), hadInput);
  EXPECT_FALSE(server->shouldCancel());
  // It can still be started.
  EXPECT_TRUE(server->startOnPort(0, _arrivals.takeChannels()));
  const Client client(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
}

// Puts a descriptor in the place of standard input for as long as it lives.
class StandardInput {
 public:
  explicit StandardInput(int descriptor)
      : _original(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    EXPECT_EQ(::dup2(descriptor, STDIN_FILENO), STDIN_FILENO);
    if (descriptor != STDIN_FILENO) ::close(descriptor);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;
  ~StandardInput() {
    if (_original < 0) return;
    ::dup2(_original, STDIN_FILENO);
    ::close(_original);
  }

 private:
  const int _original;
};

TEST_F(ZPKTCPServerTest, AListeningSocketWithTheNumber0IsServedAndClosed) {
  const StandardInput input(passive_tcp(0, false));
  const auto server = startTCPOnSocket(STDIN_FILENO, _arrivals.takeSockets());
  const Client client(portOf(STDIN_FILENO));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
  EXPECT_FALSE(isOpenDescriptor(STDIN_FILENO));
}

TEST_F(ZPKTCPServerTest, AServerIsStoppedThroughTheContract) {
  const ZPKDataServerPtr server = startTCPServerOnPort(0, _arrivals.takeChannels());
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(server->stop(&error));
  EXPECT_EQ(error->code(), 7);
}

TEST_F(ZPKTCPServerTest, StartsAndStopsInQuickSuccessionLeaveNothingBehind) {
  const std::set<int> before = openDescriptors();
  for (int round = 0; round < 50; ++round) {
    const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
    ASSERT_TRUE(server->stop());
    ASSERT_EQ(server.use_count(), 1);
  }
  EXPECT_EQ(openDescriptors(), before);
}

// --- Life.

TEST_F(ZPKTCPServerTest, ANewServerHasNothing) {
  const auto server = ZPKTCPServer::init();
  EXPECT_FALSE(server->isListening());
  EXPECT_FALSE(server->shouldCancel());
  EXPECT_EQ(server->handle(), 0);
  EXPECT_TRUE(pthread_equal(server->listenThread(), pthread_t()));
  EXPECT_FALSE(server->responseBlock());
}

TEST_F(ZPKTCPServerTest, ARunningServerIsNotListeningByItsOwnAccount) {
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  EXPECT_FALSE(server->isListening());
  EXPECT_FALSE(server->shouldCancel());
  EXPECT_GT(server->handle(), 0);
  EXPECT_FALSE(pthread_equal(server->listenThread(), pthread_t()));
  EXPECT_TRUE(server->responseBlock());
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, AStoppedServerStartsAgainButAcceptsNobody) {
  const std::set<int> before = openDescriptors();
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  EXPECT_TRUE(server->stop());
  const SystemCalls calls(SystemCalls::Threads::kAll);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(server->startOnPort(0, _arrivals.takeChannels(), &error));
  {
    const Client client(portOf(server->handle()));
    EXPECT_TRUE(server->stop(&error));
  }
  EXPECT_TRUE(server->startWithSocket(passive_tcp(0, false), _arrivals.takeSockets(), &error));
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(calls.count("accept4"), 0U);
  EXPECT_EQ(_arrivals.count(), 0U);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(ZPKTCPServerTest, ADeadServerThatIsLetGoOfLeavesItsListenerOpen) {
  auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  EXPECT_TRUE(server->stop());
  const int listener = passive_tcp(0, false);
  EXPECT_TRUE(server->startWithSocket(listener, _arrivals.takeSockets()));
  const std::weak_ptr<ZPKTCPServer> weakServer = server;
  server.reset();
  EXPECT_TRUE(waitFor([&] { return weakServer.expired(); }));
  EXPECT_TRUE(isOpenDescriptor(listener));
  ::close(listener);
}

TEST_F(ZPKTCPServerTest, TheAcceptThreadHoldsTheServer) {
  auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int port = portOf(server->handle());
  const std::weak_ptr<ZPKTCPServer> weakServer = server;
  server.reset();
  const Client client(port);
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_FALSE(weakServer.expired());
  EXPECT_TRUE(weakServer.lock()->stop());
  EXPECT_TRUE(weakServer.expired());
}

TEST_F(ZPKTCPServerTest, ACancelledThreadThatIsTheLastHolderDestroysTheServer) {
  auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int listener = server->handle();
  const std::weak_ptr<ZPKTCPServer> weakServer = server;
  server->setShouldCancel(true);
  server.reset();
  // An accept that was under way still hands over what it takes.
  const Client client(portOf(listener));
  EXPECT_TRUE(waitFor([&] { return weakServer.expired(); }));
  ::close(listener);
}

TEST_F(ZPKTCPServerTest, ASecondStartTakesThePlaceOfTheFirst) {
  const int firstListener = passive_tcp(0, false);
  Arrivals ofTheFirst;
  auto server = startTCPOnSocket(firstListener, ofTheFirst.takeSockets());
  const Client early(portOf(firstListener));
  EXPECT_TRUE(ofTheFirst.waitForCount(1));

  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(server->startOnPort(0, _arrivals.takeChannels(), &error));
  EXPECT_EQ(error, olderError());
  EXPECT_NE(server->handle(), firstListener);
  const Client toTheSecond(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  const Client toTheFirst(portOf(firstListener));
  EXPECT_TRUE(_arrivals.waitForCount(2));
  EXPECT_EQ(ofTheFirst.count(), 1U);

  // The first thread is out of reach, until its next connection shows it the flag.
  EXPECT_TRUE(server->stop());
  EXPECT_TRUE(isOpenDescriptor(firstListener));
  const std::weak_ptr<ZPKTCPServer> weakServer = server;
  server.reset();
  EXPECT_FALSE(weakServer.expired());
  const Client late(portOf(firstListener));
  EXPECT_TRUE(late.sawTheEnd());
  EXPECT_TRUE(waitFor([&] { return weakServer.expired(); }));
  ::close(firstListener);
}

TEST_F(ZPKTCPServerTest, TheCallbackCanBeReplacedWhileTheServerRuns) {
  const auto server = startTCPOnSocket(passive_tcp(0, false), nullptr);
  server->setResponseBlock(_arrivals.takeSockets());
  const Client client(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, TheAccessorsKeepWhatTheyAreGiven) {
  const auto server = ZPKTCPServer::init();
  int taken = 0;
  server->setHandle(77);
  server->setShouldCancel(true);
  server->setListenThread(pthread_self());
  server->setResponseBlock([&taken](int32_t socket) { taken = socket; });
  server->responseBlock()(5);
  EXPECT_EQ(taken, 5);
  EXPECT_EQ(server->handle(), 77);
  EXPECT_TRUE(server->shouldCancel());
  EXPECT_TRUE(pthread_equal(server->listenThread(), pthread_self()));
  server->setListenThread(pthread_t());
}

}  // namespace
