#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <set>
#include <string>

#include "Support/FullListener.h"
#include "Support/HostNames.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SignalHandler.h"
#include "Support/StandardOutputCapture.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;

// Closes a descriptor at the end of a test.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (_descriptor >= 0) ::close(_descriptor);
  }
  operator int() const { return _descriptor; }

 private:
  const int _descriptor;
};

sockaddr_in addressOf(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return address;
}

int portOf(int socket) { return ntohs(addressOf(socket).sin_port); }

int optionOf(int socket, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(::getsockopt(socket, level, option, &value, &length), 0);
  return value;
}

// A listener on the loopback address that does not share its port.
class PlainListener {
 public:
  PlainListener() : _socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(::bind(_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(_socket, 5), 0);
  }
  int port() const { return portOf(_socket); }
  int accept() const { return ::accept4(_socket, nullptr, nullptr, SOCK_CLOEXEC); }

 private:
  const Descriptor _socket;
};

// A port without a listener.
int freePort() { return PlainListener().port(); }

std::string busyLine(int port) {
  return "Error : port " + std::to_string(port) + " is busy (errno=" + std::to_string(EADDRINUSE) +
         ")\n";
}

// --- passive_tcp

TEST(PassiveTCPTest, ListensOnAllInterfacesWithItsOptionsInOrder) {
  StandardOutputCapture output;
  SystemCalls calls;
  const Descriptor listener(passive_tcp(0, true));
  EXPECT_THAT(calls.texts(),
              ElementsAre("socket AF_INET", "setsockopt SOL_SOCKET SO_REUSEADDR 1",
                          "setsockopt SOL_SOCKET SO_REUSEPORT 1", "bind AF_UNSPEC 0.0.0.0:0",
                          "listen 5", "setsockopt IPPROTO_TCP TCP_NODELAY 1"));
  ASSERT_GE(listener, 0);
  EXPECT_EQ(calls.all()[3].size, static_cast<int64_t>(sizeof(sockaddr_in)));
  EXPECT_EQ(addressOf(listener).sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(optionOf(listener, SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_NE(optionOf(listener, IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_EQ(output.text(), "");
}

TEST(PassiveTCPTest, WithoutReuseItDoesNotShareItsPort) {
  SystemCalls calls;
  const Descriptor listener(passive_tcp(0, false));
  ASSERT_GE(listener, 0);
  EXPECT_EQ(calls.count("setsockopt SOL_SOCKET SO_REUSEADDR 1"), 0U);
  EXPECT_EQ(calls.count("setsockopt SOL_SOCKET SO_REUSEPORT 1"), 0U);
  EXPECT_EQ(optionOf(listener, SOL_SOCKET, SO_REUSEADDR), 0);
  EXPECT_EQ(optionOf(listener, SOL_SOCKET, SO_REUSEPORT), 0);
}

TEST(PassiveTCPTest, AcceptsConnections) {
  const Descriptor listener(passive_tcp(0, false));
  const Descriptor client(active_tcp("127.0.0.1", portOf(listener)));
  ASSERT_GE(client, 0);
  const Descriptor server(::accept(listener, nullptr, nullptr));
  EXPECT_EQ(::send(server, "hello", 5, MSG_NOSIGNAL), 5);
  char buffer[8];
  EXPECT_EQ(::recv(client, buffer, sizeof buffer, 0), 5);
}

TEST(PassiveTCPTest, ABusyPortIsPrintedAndLeavesNoDescriptor) {
  const PlainListener first;
  for (const bool reuse : {false, true}) {
    LogCapture log;
    const std::set<int> before = openDescriptors();
    std::string printed;
    {
      StandardOutputCapture output;
      errno = 0;
      EXPECT_EQ(passive_tcp(first.port(), reuse), -1);
      EXPECT_EQ(errno, EADDRINUSE);
      printed = output.text();
    }
    EXPECT_EQ(printed, busyLine(first.port()));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(PassiveTCPTest, TwoListenersThatBothReuseAPortShareIt) {
  StandardOutputCapture output;
  const Descriptor first(passive_tcp(0, true));
  const Descriptor second(passive_tcp(portOf(first), true));
  EXPECT_GE(second, 0);
  EXPECT_EQ(portOf(second), portOf(first));
  EXPECT_EQ(output.text(), "");
}

TEST(PassiveTCPTest, AnyOtherFailureOfBindIsRestricted) {
  const std::set<int> before = openDescriptors();
  std::string printed;
  {
    StandardOutputCapture output;
    SystemCalls calls;
    calls.fail("bind", EACCES);
    EXPECT_EQ(passive_tcp(80, true), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(calls.texts().back(), "close");
    printed = output.text();
  }
  EXPECT_EQ(printed, "Error : port 80 is restricted (errno=" + std::to_string(EACCES) + ")\n");
  EXPECT_EQ(openDescriptors(), before);
}

TEST(PassiveTCPTest, AFailedSocketSurfacesAtBind) {
  StandardOutputCapture output;
  SystemCalls calls;
  calls.fail("socket", EMFILE);
  EXPECT_EQ(passive_tcp(0, false), -1);
  EXPECT_EQ(calls.count("bind"), 1U);
  EXPECT_EQ(output.text(), "Error : port 0 is restricted (errno=" + std::to_string(EBADF) + ")\n");
}

TEST(PassiveTCPTest, ThePortsLow16BitsCountButAllArePrinted) {
  const int port = PlainListener().port();
  const Descriptor listener(passive_tcp(port + 65536, true));
  ASSERT_GE(listener, 0);
  EXPECT_EQ(portOf(listener), port);
  const PlainListener busy;
  StandardOutputCapture output;
  EXPECT_EQ(passive_tcp(busy.port() + 65536, false), -1);
  EXPECT_EQ(output.text(), busyLine(busy.port() + 65536));
}

TEST(PassiveTCPTest, TheResultOfListenIsIgnored) {
  SystemCalls calls;
  calls.fail("listen", EADDRINUSE);
  const Descriptor listener(passive_tcp(0, false));
  EXPECT_GE(listener, 0);
}

// --- active_tcp and active_tcp_ex

TEST(ActiveTCPTest, WithoutASocketErrnoSaysWhyThereIsNone) {
  SystemCalls calls;
  calls.fail("socket", EMFILE);
  errno = 0;
  EXPECT_EQ(active_tcp("127.0.0.1", 1), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST(ActiveTCPTest, ConnectsToADottedAddressWithOptionsInOrder) {
  const PlainListener peer;
  SystemCalls calls;
  const Descriptor client(active_tcp("127.0.0.1", peer.port()));
  const std::string address = "connect AF_INET 127.0.0.1:" + std::to_string(peer.port());
  EXPECT_THAT(calls.texts(),
              ElementsAre("socket AF_INET", address, "setsockopt SOL_SOCKET SO_KEEPALIVE 1",
                          "setsockopt IPPROTO_TCP TCP_NODELAY 1"));
  ASSERT_GE(client, 0);
  EXPECT_NE(optionOf(client, SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_NE(optionOf(client, IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_EQ(::close(peer.accept()), 0);
}

TEST(ActiveTCPTest, ResolvesAName) {
  if (!resolvesLocalhost()) GTEST_SKIP() << "no localhost: neither /etc/hosts nor DNS names it";
  const PlainListener peer;
  const Descriptor client(active_tcp("localhost", peer.port()));
  EXPECT_GE(client, 0);
}

TEST(ActiveTCPTest, OnlyTheLow16BitsOfThePortCount) {
  const PlainListener peer;
  const Descriptor client(active_tcp("127.0.0.1", peer.port() + 65536));
  EXPECT_GE(client, 0);
}

TEST(ActiveTCPTest, ARefusedConnectionFailsSilentlyAndLeavesNoDescriptor) {
  LogCapture log;
  const int port = freePort();
  const std::set<int> before = openDescriptors();
  std::string printed;
  {
    StandardOutputCapture output;
    EXPECT_EQ(active_tcp("127.0.0.1", port), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    printed = output.text();
  }
  EXPECT_EQ(printed, "");
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(log.lines().empty());
}

TEST(ActiveTCPTest, ARefusalAfterASignalIsReportedAsTheReason) {
  FullListener listener(FullListener::Kind::kTCP);
  const size_t held = openDescriptors().size();
  int result = 0;
  int reason = 0;
  connectUnderSignals(
      [&] {
        errno = 0;
        result = active_tcp("127.0.0.1", listener.port());
        reason = errno;
      },
      [&] { listener.goAway(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(reason, ECONNREFUSED);
  EXPECT_EQ(openDescriptors().size(), held - 1);  // the listener
}

TEST(ActiveTCPTest, TheOptionsAreSetEvenAfterAFailedConnect) {
  const int port = freePort();
  SystemCalls calls;
  EXPECT_EQ(active_tcp("127.0.0.1", port), -1);
  EXPECT_THAT(calls.texts({"close", "setsockopt"}),
              ElementsAre("close", "setsockopt SOL_SOCKET SO_KEEPALIVE 1",
                          "setsockopt IPPROTO_TCP TCP_NODELAY 1"));
  EXPECT_EQ(calls.all().back().descriptor, -1);
}

TEST(ActiveTCPTest, AHostThatDoesNotResolveFailsSilently) {
  // Names that a resolver rejects without a query.
  for (const std::string& host :
       {std::string("256.256.256.256"), std::string("::1"), std::string(), std::string(70, 'x')}) {
    StandardOutputCapture output;
    EXPECT_EQ(active_tcp(host.c_str(), 80), -1) << host;
    EXPECT_EQ(output.text(), "");
  }
}

TEST(ActiveTCPTest, ANullHostFails) {
  const PlainListener peer;
  const std::set<int> before = openDescriptors();
  int published = 77;
  EXPECT_EQ(active_tcp(nullptr, peer.port()), -1);
  EXPECT_EQ(active_tcp_ex(nullptr, peer.port(), &published), -1);
  EXPECT_EQ(published, -1);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ActiveTCPExTest, PublishesTheSocketBeforeItConnects) {
  const PlainListener peer;
  int published = 77;
  int seen = 77;
  SystemCalls calls;
  calls.before("connect", [&] { seen = published; });
  const Descriptor client(active_tcp_ex("127.0.0.1", peer.port(), &published));
  ASSERT_GE(client, 0);
  EXPECT_EQ(seen, client);
  EXPECT_EQ(published, client);
}

TEST(ActiveTCPExTest, PublishesMinusOneAfterAFailure) {
  const int port = freePort();
  int published = 77;
  int seen = 77;
  SystemCalls calls;
  calls.before("connect", [&] { seen = published; });
  EXPECT_EQ(active_tcp_ex("127.0.0.1", port, &published), -1);
  EXPECT_GE(seen, 0);
  EXPECT_EQ(published, -1);
}

// --- What all their sockets have in common

TEST(SocketFunctionsTest, AStartedProgramInheritsTheirSockets) {
  const Descriptor listener(passive_tcp(0, false));
  const Descriptor client(active_tcp("127.0.0.1", portOf(listener)));
  const std::set<int> both{listener, client};
  EXPECT_EQ(inheritedOf(both), both);
}

// --- The small functions

TEST(SocketOptionTest, ReturnTheSystemsResult) {
  const Descriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(tcp_nodelay(socket), 0);
  EXPECT_NE(optionOf(socket, IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_EQ(so_keepalive(socket), 0);
  EXPECT_NE(optionOf(socket, SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_EQ(no_sigpipe(socket), 0);
}

TEST(SocketOptionTest, FailForOtherDescriptors) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  for (int (*const option)(int) : {tcp_nodelay, so_keepalive, no_sigpipe}) {
    EXPECT_EQ(option(-1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(option(ends[0]), -1);
    EXPECT_EQ(errno, ENOTSOCK);
  }
  ::close(ends[0]);
  ::close(ends[1]);
}

// On a system without SO_NOSIGPIPE its substitute changes the whole process. So each of these tests
// runs in a fresh process.
class NoSigpipeDeathTest : public testing::Test {
 protected:
  NoSigpipeDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Writes to a peer that has gone, with plain write(2), as a user of the library may. Returns 0 if
  // that fails with EPIPE.
  static int writeToNobody(int (*prepare)(int)) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 2;
    prepare(ends[0]);
    ::close(ends[1]);
    errno = 0;
    return ::write(ends[0], "x", 1) == -1 && errno == EPIPE ? 0 : 1;
  }

  static int connectToOurselves(int /*unused*/) {
    const Descriptor listener(passive_tcp(0, false));
    return active_tcp("127.0.0.1", portOf(listener));
  }
};

TEST_F(NoSigpipeDeathTest, WithoutItAWriteAfterHangUpEndsTheProcess) {
  const auto run = [] {
    ::signal(SIGPIPE, SIG_DFL);
    ::_exit(writeToNobody([](int) { return 0; }));
  };
  EXPECT_EXIT(run(), testing::KilledBySignal(SIGPIPE), "");
}

TEST_F(NoSigpipeDeathTest, WithItTheWriteFailsWithEpipe) {
  const auto run = [] {
    ::signal(SIGPIPE, SIG_DFL);
    ::_exit(writeToNobody(no_sigpipe));
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(NoSigpipeDeathTest, TheSocketFunctionsDoTheSame) {
  const auto run = [] {
    ::signal(SIGPIPE, SIG_DFL);
    ::_exit(writeToNobody(connectToOurselves));
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(NoSigpipeDeathTest, EveryCallChecksTheDispositionAgain) {
  for (int (*const prepare)(int) : {no_sigpipe, connectToOurselves}) {
    const auto run = [prepare] {
      ::signal(SIGPIPE, SIG_DFL);
      if (writeToNobody(prepare) != 0) ::_exit(3);
      ::signal(SIGPIPE, SIG_DFL);  // as a host may at any time
      ::_exit(writeToNobody(prepare));
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  }
}

TEST_F(NoSigpipeDeathTest, AFailedCallChangesNothing) {
  const auto run = [] {
    ::signal(SIGPIPE, SIG_DFL);
    ::_exit(writeToNobody([](int) { return no_sigpipe(-1); }));
  };
  EXPECT_EXIT(run(), testing::KilledBySignal(SIGPIPE), "");
}

TEST_F(NoSigpipeDeathTest, AHostsHandlerOfDetailsStays) {
  const ChildResult result = runInChild([](std::string*) {
    static volatile pid_t sender = 0;
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t* details, void*) { sender = details->si_pid; };
    ::sigaction(SIGPIPE, &action, nullptr);
    const int status = writeToNobody(no_sigpipe);
    return sender == ::getpid() ? status : 3;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
}

TEST_F(NoSigpipeDeathTest, AHostsOwnHandlerStays) {
  static volatile std::sig_atomic_t hasCome = 0;
  const auto run = [] {
    const SignalHandler handler(SIGPIPE, [](int) { hasCome = 1; });
    const int status = writeToNobody(no_sigpipe);
    ::_exit(hasCome == 1 ? status : 3);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
