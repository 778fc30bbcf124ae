#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Data Server/ZPKTCPServer.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SystemCalls.h"
#include "Support/TCPServerFixture.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"
#include "Utility/ZPIUnixSocketFunctions.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ZPKTCPServerTest = TCPServerFixture;

TEST_F(ZPKTCPServerTest, EachConnectionToAPortGivesAnOpenChannel) {
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

TEST_F(ZPKTCPServerTest, AServerOnASocketPassesABareDescriptor) {
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

TEST_F(ZPKTCPServerTest, AListeningUnixSocketWorksToo) {
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

TEST_F(ZPKTCPServerTest, TheSystemChoosesAPortGivenAsNull) {
  ZPKErrorPtr error = olderError();
  const auto server = startTCPServerOnPort(std::nullopt, _arrivals.takeChannels(), &error);
  EXPECT_EQ(error, olderError());
  EXPECT_GT(portOf(server->handle()), 0);
  const Client client(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, OnlyTheLow16BitsOfAPortCount) {
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

TEST_F(ZPKTCPServerTest, TwoServersShareAPortSilently) {
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

TEST_F(ZPKTCPServerTest, ASecondConnectionWaitsWhileTheCallbackBlocks) {
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

TEST_F(ZPKTCPServerTest, ACallbackKeepsItsStateBetweenCalls) {
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

TEST_F(ZPKTCPServerTest, AConnectionWithoutACallbackIsClosed) {
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

// --- Life.

TEST_F(ZPKTCPServerTest, ANewServerHasNothing) {
  const auto server = ZPKTCPServer::init();
  EXPECT_FALSE(server->isListening());
  EXPECT_FALSE(server->shouldCancel());
  EXPECT_EQ(server->handle(), 0);
  EXPECT_TRUE(pthread_equal(server->listenThread(), pthread_t()));
  EXPECT_FALSE(server->responseBlock());
}

TEST_F(ZPKTCPServerTest, ARunningServerDoesNotReportThatItListens) {
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  EXPECT_FALSE(server->isListening());
  EXPECT_FALSE(server->shouldCancel());
  EXPECT_GT(server->handle(), 0);
  EXPECT_FALSE(pthread_equal(server->listenThread(), pthread_t()));
  EXPECT_TRUE(server->responseBlock());
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, TheCallbackCanBeReplacedWhileTheServerRuns) {
  const auto server = startTCPOnSocket(passive_tcp(0, false), nullptr);
  server->setResponseBlock(_arrivals.takeSockets());
  const Client client(portOf(server->handle()));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
}

TEST_F(ZPKTCPServerTest, TheAccessorsKeepTheirValues) {
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
