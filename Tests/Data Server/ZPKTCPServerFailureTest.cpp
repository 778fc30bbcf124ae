// Starts and accepts that fail.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <future>
#include <set>
#include <string>
#include <utility>

#include "Data Server/ZPKTCPServer.h"
#include "Support/ErrorExpectations.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/StandardOutputCapture.h"
#include "Support/SystemCalls.h"
#include "Support/TCPServerFixture.h"
#include "Support/ThreadCalls.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ZPKTCPServerFailureTest = TCPServerFixture;

const ExpectedFailure kAlreadyListening{
    "zephal-communication", 4, "This server is already listening",
    "-[ZPKTCPServer checkNotListeningWithError:]", "ZPKTCPServer.cpp"};

// --- Starts that fail.

// Listens on a port that it does not share; two listeners that both set SO_REUSEPORT would share
// it.
TEST_F(ZPKTCPServerFailureTest, APortInUseGivesAnUnstoppableServer) {
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

TEST_F(ZPKTCPServerFailureTest, WithoutASlotAFailedStartIsLogged) {
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

// Tries port 1 as an ordinary user, which the system may or may not allow.
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

TEST_F(ZPKTCPServerFailureTest, APrivilegedPortIsRefusedToAnOrdinaryUser) {
  const ChildResult result = runAsOrdinaryUser(startOnAPrivilegedPort);
  EXPECT_EQ(result.status, 0) << result.message;
}

TEST_F(ZPKTCPServerFailureTest, NoSocketGivesAServerWithoutAThread) {
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

TEST_F(ZPKTCPServerFailureTest, AServerMarkedAsListeningRejectsEveryStart) {
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

TEST_F(ZPKTCPServerFailureTest, AThreadThatCannotBeStartedIsOnlyLogged) {
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

TEST_F(ZPKTCPServerFailureTest, AFailedAcceptIsPrintedAndTriedAgainAtOnce) {
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

// The first callback leaves the process no free descriptors; before the fifth accept they are
// available again.
TEST_F(ZPKTCPServerFailureTest, AServerSurvivesALackOfDescriptors) {
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

}  // namespace
