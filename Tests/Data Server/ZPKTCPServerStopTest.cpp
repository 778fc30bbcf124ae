// The end of a server: stops, starts after a stop, and what keeps it alive.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Data Server/ZPKTCPServer.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/OpenDescriptors.h"
#include "Support/SystemCalls.h"
#include "Support/TCPServerFixture.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using ZPKTCPServerStopTest = TCPServerFixture;

const ExpectedFailure kNeverStarted{"zephal-communication", 7, "Failed to start server",
                                    "-[ZPKTCPServer stop:]", "ZPKTCPServer.cpp"};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line + "\n");
  return lines;
}

TEST_F(ZPKTCPServerStopTest, AStopWakesTheAcceptAndPrintsItsFailure) {
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

TEST_F(ZPKTCPServerStopTest, AStopClosesCancelsJoinsAndForgetsInThatOrder) {
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
  // The state of a stop that a callback delays; the callback then returns.
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

TEST_F(ZPKTCPServerStopTest, ASecondStopFailsAndClosesNothing) {
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int listener = server->handle();
  EXPECT_TRUE(server->stop());
  // A different file has the number by now.
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

TEST_F(ZPKTCPServerStopTest, AConnectionOutlivesTheStop) {
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

TEST_F(ZPKTCPServerStopTest, AStoppedPortIsFreeForOthers) {
  const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int port = portOf(server->handle());
  EXPECT_TRUE(server->stop());
  const int next = passive_tcp(port, false);
  EXPECT_GE(next, 0);
  ::close(next);
}

TEST_F(ZPKTCPServerStopTest, AServerThatWasNeverStartedClosesNoDescriptor) {
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

// Replaces standard input by a descriptor during its lifetime.
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

TEST_F(ZPKTCPServerStopTest, AListeningSocketWithNumber0IsServedAndClosed) {
  const StandardInput input(passive_tcp(0, false));
  const auto server = startTCPOnSocket(STDIN_FILENO, _arrivals.takeSockets());
  const Client client(portOf(STDIN_FILENO));
  EXPECT_TRUE(_arrivals.waitForCount(1));
  EXPECT_TRUE(server->stop());
  EXPECT_FALSE(isOpenDescriptor(STDIN_FILENO));
}

TEST_F(ZPKTCPServerStopTest, AServerIsStoppedThroughTheContract) {
  const ZPKDataServerPtr server = startTCPServerOnPort(0, _arrivals.takeChannels());
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(server->stop(&error));
  EXPECT_EQ(error->code(), 7);
}

TEST_F(ZPKTCPServerStopTest, StartsAndStopsInQuickSuccessionLeaveNothingBehind) {
  const std::set<int> before = openDescriptors();
  for (int round = 0; round < 50; ++round) {
    const auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
    ASSERT_TRUE(server->stop());
    ASSERT_EQ(server.use_count(), 1);
  }
  EXPECT_EQ(openDescriptors(), before);
}

// --- Starting again, and releasing the server.

TEST_F(ZPKTCPServerStopTest, AStoppedServerStartsAgainButAcceptsNobody) {
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

TEST_F(ZPKTCPServerStopTest, ADroppedDeadServerLeavesItsListenerOpen) {
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

TEST_F(ZPKTCPServerStopTest, TheAcceptThreadHoldsTheServer) {
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

TEST_F(ZPKTCPServerStopTest, ACancelledThreadMayDestroyTheServer) {
  auto server = startTCPServerOnPort(0, _arrivals.takeChannels());
  const int listener = server->handle();
  const std::weak_ptr<ZPKTCPServer> weakServer = server;
  server->setShouldCancel(true);
  server.reset();
  // An accept that was under way still passes its connection on.
  const Client client(portOf(listener));
  EXPECT_TRUE(waitFor([&] { return weakServer.expired(); }));
  ::close(listener);
}

TEST_F(ZPKTCPServerStopTest, ASecondStartReplacesTheFirst) {
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

  // Nothing can end the first thread until its next connection makes it check the flag.
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

}  // namespace
