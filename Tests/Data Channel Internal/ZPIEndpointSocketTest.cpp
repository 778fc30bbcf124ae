#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

#include "Data Channel Internal/ZPIEndpointSocket.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/FullListener.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SimulatedDevice.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPIUnixSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = SimulatedDevice::Kind;

ZPKURLPtr urlOf(const std::string& text) {
  auto url = ZPKURL::initWithString(text);
  EXPECT_NE(url, nullptr) << text;
  return url;
}

ZPKDataPtr bytes(std::string_view text) { return ZPKData::dataWithString(text); }

// What checkURL logs for a URL that it accepts.
std::vector<std::string> linesOfCheck(const std::string& text) {
  LogCapture log;
  EXPECT_TRUE(ZPIEndpointSocket::checkURL(urlOf(text))) << text;
  for (const LogLine& line : log.lines()) EXPECT_EQ(line.level, 0);
  return log.texts();
}

// --- checkURL

TEST(ZPIEndpointSocketCheckTest, ANullURLIsSilentlyRejected) {
  LogCapture log;
  EXPECT_FALSE(ZPIEndpointSocket::checkURL(nullptr));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPIEndpointSocketCheckTest, GoodURLsAreSilentlyAccepted) {
  for (const char* const url :
       {"tcp://localhost:80", "tcp://127.0.0.1:65535", "tcp://localhost:0", "tcp://localhost",
        "unix:///tmp/socket", "unix://host/tmp/socket", "unix:relative"}) {
    EXPECT_THAT(linesOfCheck(url), IsEmpty()) << url;
  }
}

TEST(ZPIEndpointSocketCheckTest, AnyOtherSchemeIsLoggedAndAccepted) {
  EXPECT_THAT(linesOfCheck("http://localhost:80/x?y=1"),
              ElementsAre("Unsupported scheme 'http' for URL http://localhost:80/x?y=1"));
  EXPECT_THAT(linesOfCheck("TCP://localhost:80"),
              ElementsAre("Unsupported scheme 'TCP' for URL TCP://localhost:80"));
  EXPECT_THAT(linesOfCheck("uart:///dev/ttyS0"),
              ElementsAre("Unsupported scheme 'uart' for URL uart:///dev/ttyS0"));
  EXPECT_THAT(linesOfCheck("localhost"),
              ElementsAre("Unsupported scheme '(null)' for URL localhost"));
}

TEST(ZPIEndpointSocketCheckTest, APercentSignInAURLIsNotADirective) {
  EXPECT_THAT(linesOfCheck("http://h/%25d%25s"),
              ElementsAre("Unsupported scheme 'http' for URL http://h/%25d%25s"));
}

TEST(ZPIEndpointSocketCheckTest, APortAbove65535IsLoggedAndAccepted) {
  EXPECT_THAT(linesOfCheck("tcp://localhost:65536"), ElementsAre("Invalid TCP port specification"));
  EXPECT_THAT(linesOfCheck("tcp://localhost:70000"), ElementsAre("Invalid TCP port specification"));
  // As unsigned 32-bit numbers these are only the top bit, and 80.
  EXPECT_THAT(linesOfCheck("tcp://localhost:2147483648"),
              ElementsAre("Invalid TCP port specification"));
  EXPECT_THAT(linesOfCheck("tcp://localhost:4294967376"), IsEmpty());
}

TEST(ZPIEndpointSocketCheckTest, AMissingHostIsLoggedAndAccepted) {
  for (const char* const url : {"tcp://:80", "tcp:", "tcp:/x", "tcp://"}) {
    EXPECT_THAT(linesOfCheck(url), ElementsAre("Invalid TCP host")) << url;
  }
}

TEST(ZPIEndpointSocketCheckTest, ABadPortIsLoggedBeforeAMissingHost) {
  EXPECT_THAT(linesOfCheck("tcp://:70000"),
              ElementsAre("Invalid TCP port specification", "Invalid TCP host"));
}

TEST(ZPIEndpointSocketCheckTest, AnEmptyUnixPathIsLoggedAndAccepted) {
  EXPECT_THAT(linesOfCheck("unix:"), ElementsAre("Invalid unix path"));
  EXPECT_THAT(linesOfCheck("unix://host"), ElementsAre("Invalid unix path"));
}

// --- Creation

TEST(ZPIEndpointSocketTest, ANullURLGivesNoChannel) {
  EXPECT_EQ(ZPIEndpointSocket::initForURL(nullptr), nullptr);
}

TEST(ZPIEndpointSocketTest, BeginsClosedAndMakesNoSystemCall) {
  const ZPKURLPtr url = urlOf("tcp://127.0.0.1:80");
  const SystemCalls calls;
  const auto channel = ZPIEndpointSocket::initForURL(url);
  EXPECT_FALSE(channel->isOpened());
  EXPECT_THAT(calls.all(), IsEmpty());
}

TEST(ZPIEndpointSocketTest, AnAdoptedSocketIsOpenWithItsOptionsUntouched) {
  SocketPair pair;
  const int socket = pair.takeOurs();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  {
    const SystemCalls calls;
    const auto channel = ZPIEndpointSocket::initWithSocket(socket);
    // This is a flag of the descriptor, not an option of the socket.
    EXPECT_THAT(calls.texts(), ElementsAre("fcntl F_SETFD 1"));
    EXPECT_TRUE(channel->isOpened());
    EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
    expectFailure(error, log,
                  {"zephal-communication", 1, "Device Already Opened", "openWithTimeout",
                   "DescriptorOperation.h"});
    EXPECT_TRUE(channel->isOpened());
    EXPECT_TRUE(channel->close(nullptr));
  }
  EXPECT_FALSE(isOpenDescriptor(socket));
}

TEST(ZPIEndpointSocketTest, AdoptedStandardDescriptorsAreStillInherited) {
  for (const int32_t descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const SystemCalls calls;
    const auto channel = ZPIEndpointSocket::initWithSocket(descriptor);
    EXPECT_THAT(calls.all(), IsEmpty());
  }
}

TEST(ZPIEndpointSocketTest, AConnectionIsNeverOpenToAStartedProgram) {
  SimulatedDevice tcp(Kind::kTCP);
  SimulatedDevice local(Kind::kUnix);
  for (const std::string& url : {tcp.url(), local.url()}) {
    const auto channel = ZPIEndpointSocket::initForURL(urlOf(url));
    const SystemCalls calls;
    EXPECT_TRUE(channel->openWithTimeout(1.0, nullptr));
    // The flag is not set later: another thread may start a program in between.
    EXPECT_THAT(calls.texts({"socket"}), ElementsAre(testing::EndsWith(" SOCK_CLOEXEC")));
    channel->close(nullptr);
  }
}

TEST(ZPIEndpointSocketTest, AnAdoptedSocketCannotBeReopened) {
  TransportPeer peer(TransportPeer::Kind::kAdopted);
  const auto channel = ZPIEndpointSocket::initWithSocket(peer.nearEnd());
  EXPECT_TRUE(channel->close(nullptr));
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPIEndpointSocketTest, MinusOneGivesAChannelThatCannotBeOpened) {
  LogCapture log;
  const auto channel = ZPIEndpointSocket::initWithSocket(-1);
  EXPECT_FALSE(channel->isOpened());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(channel->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
}

TEST(ZPIEndpointSocketTest, IsDestroyedWithoutAClose) {
  const SocketPair pair;
  ZPIEndpointSocket::initWithSocket(pair.ours).reset();
  EXPECT_TRUE(isOpenDescriptor(pair.ours));
}

// --- Opening

TEST(ZPIEndpointSocketTest, AFailedOpenLeavesTheSlotAndLogsNothing) {
  std::string refused;
  {
    const SimulatedDevice device(Kind::kTCP);
    refused = device.url();
  }
  for (const std::string& url :
       {refused, std::string("unix:///no/such/socket"), std::string("http://localhost:80"),
        std::string("tcp://:80"), std::string("unix:")}) {
    const auto channel = ZPIEndpointSocket::initForURL(urlOf(url));
    const std::set<int> before = openDescriptors();
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(channel->openWithTimeout(1.0, &error)) << url;
    EXPECT_FALSE(channel->isOpened());
    EXPECT_EQ(error, olderError());
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(openDescriptors(), before);
  }
}

TEST(ZPIEndpointSocketTest, IgnoresTheTimeoutOfAnOpen) {
  SimulatedDevice device(Kind::kTCP);
  for (const double timeout : {-0.5, 0.0, -1.0, 1.0e300}) {
    const auto channel = ZPIEndpointSocket::initForURL(urlOf(device.url()));
    EXPECT_TRUE(channel->openWithTimeout(timeout, nullptr));
    EXPECT_TRUE(channel->close(nullptr));
  }
}

TEST(ZPIEndpointSocketTest, APortOf70000IsLoggedAndReachesPort4464) {
  const ZPKURLPtr url = urlOf("tcp://127.0.0.1:70000");
  LogCapture log;
  EXPECT_TRUE(ZPIEndpointSocket::checkURL(url));
  EXPECT_THAT(log.texts(), ElementsAre("Invalid TCP port specification"));
  SystemCalls calls;
  calls.answer("connect", 0);
  const auto channel = ZPIEndpointSocket::initForURL(url);
  EXPECT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(calls.texts({"connect"}), ElementsAre("connect AF_INET 127.0.0.1:4464"));
  channel->close(nullptr);
}

TEST(ZPIEndpointSocketTest, ALongUnixPathReachesTheShortenedName) {
  const TemporaryFolder folder;
  std::string path = folder.pathOf("");
  path.append(sizeof(sockaddr_un::sun_path) - 1 - path.size(), 'x');
  const int listener = passive_unix(path);
  ASSERT_GE(listener, 0);
  const auto channel = ZPIEndpointSocket::initForURL(urlOf("unix://" + path + "and-more"));
  EXPECT_TRUE(channel->openWithTimeout(1.0, nullptr));
  channel->close(nullptr);
  ::close(listener);
}

TEST(ZPIEndpointSocketTest, AConnectedSocketIsBlocking) {
  SimulatedDevice device(Kind::kTCP);
  const auto channel = ZPIEndpointSocket::initForURL(urlOf(device.url()));
  SystemCalls calls;
  EXPECT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(calls.texts({"fcntl", "ioctl"}), IsEmpty());
  channel->close(nullptr);
}

TEST(ZPIEndpointSocketTest, ASignalDuringConnectDoesNotEndTheOpen) {
  for (const auto kind : {FullListener::Kind::kTCP, FullListener::Kind::kUnix}) {
    FullListener listener(kind);
    const auto channel = ZPIEndpointSocket::initForURL(urlOf(listener.url()));
    bool isOpen = false;
    connectUnderSignals([&] { isOpen = channel->openWithTimeout(1.0, nullptr); },
                        [&] { listener.makeRoom(); });
    EXPECT_TRUE(isOpen) << listener.url();
    // An open channel is connected.
    EXPECT_TRUE(channel->write(bytes("x"), nullptr));
    if (isOpen) channel->close(nullptr);
  }
}

// --- Reset and close

TEST(ZPIEndpointSocketTest, ResettingAnOpenOneFailsAndLeavesItOpen) {
  TransportPeer peer(TransportPeer::Kind::kAdopted);
  const auto channel = ZPIEndpointSocket::initWithSocket(peer.nearEnd());
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->reset(&error));
  expectFailure(error, log,
                {"zephal-communication", 1, "Reset not supported while channel is open",
                 "-[ZPIEndpointSocket reset:]", "ZPIEndpointSocket.cpp"});
  EXPECT_FALSE(channel->reset(nullptr));
  EXPECT_EQ(log.count("Reset not supported while channel is open"), 2U);
  EXPECT_TRUE(channel->isOpened());
  channel->close(nullptr);
}

TEST(ZPIEndpointSocketTest, ResettingAClosedOneSucceedsAndDoesNothing) {
  const auto channel = ZPIEndpointSocket::initForURL(urlOf("tcp://127.0.0.1:80"));
  ZPKErrorPtr error = olderError();
  const SystemCalls calls;
  EXPECT_TRUE(channel->reset(&error));
  EXPECT_TRUE(channel->reset(nullptr));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(channel->isOpened());
  EXPECT_THAT(calls.all(), IsEmpty());
}

TEST(ZPIEndpointSocketTest, AFailedCloseIsReportedAndTheChannelIsClosed) {
  TransportPeer peer(TransportPeer::Kind::kAdopted);
  const auto channel = ZPIEndpointSocket::initWithSocket(peer.nearEnd());
  LogCapture log;
  ZPKErrorPtr error = olderError();
  {
    SystemCalls calls;
    calls.fail("close", EIO);
    EXPECT_FALSE(channel->close(&error));
  }
  expectFailure(
      error, log,
      {"zephal-communication", 4, std::string("Error closing port - ") + std::strerror(EIO) + "(5)",
       "close", "ZPIActivesocketLifetimePolicy.cpp"});
  EXPECT_FALSE(channel->isOpened());
  ::close(peer.nearEnd());
}

TEST(ZPIEndpointSocketTest, AFailedCloseReplacesTheErrorOfAFailedRead) {
  TransportPeer peer(TransportPeer::Kind::kAdopted);
  const int32_t socket = peer.nearEnd();
  const auto channel = ZPIEndpointSocket::initWithSocket(socket);
  peer.hangUp();
  LogCapture log;
  ZPKErrorPtr error;
  {
    SystemCalls calls;
    calls.fail("close", EIO);
    EXPECT_EQ(channel->readWithTimeout(20.0, &error), nullptr);
  }
  const std::string closing = std::string("Error closing port - ") + std::strerror(EIO) + "(5)";
  EXPECT_EQ(error->code(), 4);
  EXPECT_EQ(error->description(), closing);
  EXPECT_THAT(
      log.texts(),
      ElementsAre(std::string("Read failed with error ") + std::strerror(0) + " (0)", closing));
  ::close(socket);
}

// --- What a peer does

TEST(ZPIEndpointSocketTest, AResetConnectionIsAFailedRead) {
  SimulatedDevice device(Kind::kTCP);
  const auto channel = ZPIEndpointSocket::initForURL(urlOf(device.url()));
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  ASSERT_TRUE(device.waitForConnections(1));
  device.resetConnection();
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(20.0, &error), nullptr);
  expectFailure(error, log,
                {"zephal-communication", 5,
                 std::string("Read failed with error ") + std::strerror(ECONNRESET) + " (" +
                     std::to_string(ECONNRESET) + ")",
                 "zephal_communication_read", "DescriptorOperation.cpp"});
  EXPECT_FALSE(channel->isOpened());
}

// Writes until the write fails, in a process where SIGPIPE has its default action.
ChildResult writeToNobody(TransportPeer::Kind kind) {
  return runInChild([kind](std::string* message) {
    LogCapture log;
    TransportPeer peer(kind);
    const auto channel = peer.makeChannel();
    if (!peer.open(channel)) return 2;
    ::signal(SIGPIPE, SIG_DFL);
    peer.hangUp();
    ZPKErrorPtr error;
    // The first write can succeed, before the peer's answer arrives.
    const bool hasFailed =
        waitFor([&] { return !channel->write(ZPKData::dataWithString("x"), &error); });
    if (!hasFailed) return 3;
    if (!channel->isOpened()) return 4;
    *message = error->description();
    return 0;
  });
}

TEST(ZPIEndpointSocketTest, AWriteToADisconnectedPeerFailsWithoutASignal) {
  using Transport = TransportPeer::Kind;
  for (const Transport kind : {Transport::kTCP, Transport::kUnix, Transport::kAdopted}) {
    const ChildResult result = writeToNobody(kind);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.message, std::string("Write failed with ") + std::strerror(EPIPE) + " (" +
                                  std::to_string(EPIPE) + ")");
  }
}

TEST(ZPIEndpointSocketTest, AnAdoptedPipeWritesToo) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const auto channel = ZPIEndpointSocket::initWithSocket(ends[1]);
  EXPECT_TRUE(channel->write(bytes("hello"), nullptr));
  char buffer[8];
  EXPECT_EQ(::read(ends[0], buffer, sizeof buffer), 5);
  EXPECT_TRUE(channel->close(nullptr));
  ::close(ends[0]);
}

}  // namespace
