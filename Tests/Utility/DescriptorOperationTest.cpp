#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <limits>
#include <string>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SignalHandler.h"
#include "Support/SystemCalls.h"
#include "Utility/DescriptorOperation.h"
#include "Utility/ZPKData.h"

using namespace support;

namespace {

using testing::AnyOf;
using testing::ElementsAre;

std::string textOf(int number) { return std::strerror(number); }

std::string numbered(int number) { return textOf(number) + " (" + std::to_string(number) + ")"; }

ZPKDataPtr bytes(std::string_view text) { return ZPKData::dataWithString(text); }

ExpectedFailure readFailure(int number) {
  return {"zephal-communication", 5, "Read failed with error " + numbered(number),
          "zephal_communication_read", "DescriptorOperation.cpp"};
}

ExpectedFailure writeFailure(int number) {
  return {"zephal-communication", 5, "Write failed with " + numbered(number),
          "zephal_communication_write", "DescriptorOperation.cpp"};
}

// A pair of connected sockets: ours and the peer's.
class SocketPair {
 public:
  SocketPair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ours = ends[0];
    peers = ends[1];
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    ::close(ours);
    closePeer();
  }

  void send(std::string_view text) const {
    EXPECT_EQ(::send(peers, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  std::string receive() const {
    char buffer[4096];
    const ssize_t count = ::recv(peers, buffer, sizeof buffer, MSG_DONTWAIT);
    return count < 0 ? "" : std::string(buffer, static_cast<size_t>(count));
  }
  void closePeer() {
    if (peers >= 0) ::close(peers);
    peers = -1;
  }

  int ours = -1;
  int peers = -1;
};

// Sends SIGUSR1 to a thread, again and again, until something has happened.
bool signalUntil(pthread_t thread, const std::function<bool()>& hasHappened) {
  return waitFor([&] {
    if (hasHappened()) return true;
    ::pthread_kill(thread, SIGUSR1);
    return false;
  });
}

// --- select_with_retry

TEST(SelectWithRetryTest, TellsTheCountOfReadableDescriptors) {
  SocketPair pair;
  pair.send("x");
  fd_set set;
  FD_ZERO(&set);
  FD_SET(pair.ours, &set);
  errno = EPERM;
  EXPECT_EQ(select_with_retry(pair.ours + 1, &set, nullptr), ZPICallResult(1, 0));
  EXPECT_TRUE(FD_ISSET(pair.ours, &set));
}

TEST(SelectWithRetryTest, ATimeoutIsZeroWithoutAnErrno) {
  SocketPair pair;
  fd_set set;
  FD_ZERO(&set);
  FD_SET(pair.ours, &set);
  timeval time{0, 1000};
  EXPECT_EQ(select_with_retry(pair.ours + 1, &set, &time), ZPICallResult(0, 0));
}

TEST(SelectWithRetryTest, TriesAgainOnInterruptionAndAgainstEagain) {
  SocketPair pair;
  pair.send("x");
  fd_set set;
  FD_ZERO(&set);
  FD_SET(pair.ours, &set);
  timeval time{20, 0};
  SystemCalls calls;
  calls.fail("select", EINTR, 0, 2);
  calls.fail("select", EAGAIN, 2);
  EXPECT_EQ(select_with_retry(pair.ours + 1, &set, &time), ZPICallResult(1, 0));
  EXPECT_THAT(calls.texts(), ElementsAre("select 20.000000", "select 20.000000", "select 20.000000",
                                         "select 20.000000"));
}

TEST(SelectWithRetryTest, AnyOtherFailureEndsIt) {
  fd_set set;
  FD_ZERO(&set);
  SystemCalls calls;
  calls.fail("select", EBADF);
  EXPECT_EQ(select_with_retry(1, &set, nullptr), ZPICallResult(-1, EBADF));
  EXPECT_EQ(calls.count("select"), 1U);
}

TEST(SelectWithRetryTest, NeverAsksForMoreDescriptorsThanTheSetHolds) {
  fd_set set;
  FD_ZERO(&set);
  timeval time{0, 0};
  SystemCalls calls;
  EXPECT_EQ(select_with_retry(5000, &set, &time), ZPICallResult(0, 0));
  EXPECT_EQ(calls.all().front().size, FD_SETSIZE);
}

// --- read_with_retry

TEST(ReadWithRetryTest, SpinsOnEagainUntilSomethingCame) {
  SocketPair pair;
  pair.send("abc");
  char buffer[8];
  SystemCalls calls;
  calls.fail("read", EAGAIN, 0, 1000);
  EXPECT_EQ(read_with_retry(pair.ours, buffer, sizeof buffer), ZPICallResult(3, 0));
  EXPECT_EQ(calls.count("read"), 1001U);
}

TEST(ReadWithRetryTest, AnInterruptionIsZeroBytesAndNoSecondTry) {
  SocketPair pair;
  pair.send("abc");
  char buffer[8];
  SystemCalls calls;
  calls.fail("read", EINTR);
  EXPECT_EQ(read_with_retry(pair.ours, buffer, sizeof buffer), ZPICallResult(0, EINTR));
  EXPECT_EQ(calls.count("read"), 1U);
}

TEST(ReadWithRetryTest, AnInterruptionCountsEvenBesideAResult) {
  char buffer[8];
  SystemCalls calls;
  calls.answer("read", 3, EINTR);
  EXPECT_EQ(read_with_retry(0, buffer, sizeof buffer), ZPICallResult(0, EINTR));
}

TEST(ReadWithRetryTest, EndOfFileIsZeroBytesWithoutAnErrno) {
  SocketPair pair;
  pair.closePeer();
  char buffer[8];
  errno = EPERM;
  EXPECT_EQ(read_with_retry(pair.ours, buffer, sizeof buffer), ZPICallResult(0, 0));
}

TEST(ReadWithRetryTest, AnyOtherFailureComesWithItsErrno) {
  char buffer[8];
  EXPECT_EQ(read_with_retry(-1, buffer, sizeof buffer), ZPICallResult(-1, EBADF));
}

TEST(ReadWithRetryTest, ARealSignalEndsABlockedRead) {
  SocketPair pair;
  const SignalHandler handler(SIGUSR1);
  std::promise<pthread_t> reader;
  auto result = std::async(std::launch::async, [&] {
    char buffer[8];
    reader.set_value(::pthread_self());
    return read_with_retry(pair.ours, buffer, sizeof buffer);
  });
  const pthread_t thread = reader.get_future().get();
  EXPECT_TRUE(signalUntil(thread, [&] {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }));
  pair.send("x");  // frees a reader that no signal reached
  EXPECT_EQ(result.get(), ZPICallResult(0, EINTR));
}

// --- zephal_communication_read

TEST(ZephalCommunicationReadTest, NowWithNothingWaitingIsOneIoctlAndNoAllocation) {
  SocketPair pair;
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr shared = ZPKData::data();
  SystemCalls calls;
  const ZPKDataPtr data =
      zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  EXPECT_EQ(calls.allocations(), 0U);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD"));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
}

TEST(ZephalCommunicationReadTest, NowNeverNoticesThatThePeerHasGone) {
  LogCapture log;
  SocketPair pair;
  pair.closePeer();
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data =
      zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZephalCommunicationReadTest, NowWithBytesWaitingSkipsSelect) {
  SocketPair pair;
  pair.send("hello");
  ZPKErrorPtr error = olderError();
  SystemCalls calls;
  const ZPKDataPtr data =
      zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "read"));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->view(), "hello");
  EXPECT_EQ(error, olderError());
}

TEST(ZephalCommunicationReadTest, TheBufferOfTheReadBecomesTheData) {
  SocketPair pair;
  pair.send(std::string(60000, 'x'));
  SystemCalls calls;
  const ZPKDataPtr data = zephal_communication_read(pair.ours, 20.0, nullptr);
  // One for the bytes, one for the object around them.
  EXPECT_EQ(calls.allocations(), 2U);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 60000U);
}

TEST(ZephalCommunicationReadTest, ATimeoutThatRunsOutGivesEmptyDataAndLeavesTheSlot) {
  LogCapture log;
  SocketPair pair;
  ZPKErrorPtr error = olderError();
  SystemCalls calls;
  const ZPKDataPtr data = zephal_communication_read(pair.ours, 0.05, &error);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "select 0.050000"));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZephalCommunicationReadTest, SplitsTheTimeoutIntoSecondsAndWholeMicroseconds) {
  SocketPair pair;
  pair.send(std::string(16, 'x'));
  const std::pair<double, std::string> cases[] = {
      {1.5, "select 1.500000"},      {1.0 / 30.0, "select 0.033333"},
      {20.0, "select 20.000000"},    {0.0000019, "select 0.000001"},
      {1.0e-300, "select 0.000000"}, {2.9999999, "select 2.999999"},
      {-1.0, "select forever"},      {3000000000.25, "select 3000000000.250000"},
  };
  for (const auto& [timeout, text] : cases) {
    SystemCalls calls;
    // One byte a read, so that there is always something to read.
    calls.answer("ioctl FIONREAD", -1, ENOTTY);
    calls.shorten("read", 1);
    const ZPKDataPtr data = zephal_communication_read(pair.ours, timeout, nullptr);
    EXPECT_THAT(calls.texts({"select"}), ElementsAre(text));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "x");
  }
}

TEST(ZephalCommunicationReadTest, AHugeTimeoutDoesNotOverflow) {
  for (const double timeout : {1.0e300, std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::max(), 1.0e19}) {
    SocketPair pair;
    SystemCalls calls;
    // Arrives only while the wait is under way.
    calls.before("select", [&] { pair.send("late"); });
    const ZPKDataPtr data = zephal_communication_read(pair.ours, timeout, nullptr);
    EXPECT_EQ(calls.count("select 1000000000000.000000"), 1U);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "late");
  }
}

TEST(ZephalCommunicationReadTest, ReturnsWhatWaitedAtEntryHoweverMuchHasComeSince) {
  SocketPair pair;
  pair.send("0123456789");
  SystemCalls calls;
  calls.before("select", [&] { pair.send("and more"); });
  const ZPKDataPtr first = zephal_communication_read(pair.ours, 20.0, nullptr);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "select 20.000000", "read"));
  EXPECT_EQ(calls.all().back().size, 10);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->view(), "0123456789");
  const ZPKDataPtr second = zephal_communication_read(pair.ours, 20.0, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->view(), "and more");
}

TEST(ZephalCommunicationReadTest, AsksFor64KiBWhenNothingWaitedAtEntry) {
  SocketPair pair;
  SystemCalls calls;
  calls.before("select", [&] { pair.send("late"); });
  const ZPKDataPtr data =
      zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr);
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "select forever", "read"));
  EXPECT_EQ(calls.all().back().size, 65536);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->view(), "late");
}

TEST(ZephalCommunicationReadTest, AFailedIoctlCountsAsNothingWaiting) {
  SocketPair pair;
  pair.send("hello");
  SystemCalls calls;
  calls.fail("ioctl FIONREAD", ENOTTY, 0, 2);
  EXPECT_EQ(zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_NOW, nullptr)->length(),
            0U);
  const ZPKDataPtr data = zephal_communication_read(pair.ours, 20.0, nullptr);
  EXPECT_EQ(calls.all().back().size, 65536);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->view(), "hello");
}

TEST(ZephalCommunicationReadTest, OneShortReadIsOneResult) {
  SocketPair pair;
  pair.send("hello");
  SystemCalls calls;
  calls.shorten("read", 2);
  const ZPKDataPtr data = zephal_communication_read(pair.ours, 20.0, nullptr);
  EXPECT_EQ(calls.count("read"), 1U);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->view(), "he");
}

TEST(ZephalCommunicationReadTest, AFailedSelectIsReportedWithTheDescriptor) {
  int closed = -1;
  {
    SocketPair pair;
    closed = pair.ours;
  }
  const ExpectedFailure expected{
      "zephal-communication", 5,
      "Select failed with error " + numbered(EBADF) + ", fd=" + std::to_string(closed),
      "zephal_communication_read", "DescriptorOperation.cpp"};
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(zephal_communication_read(closed, 1.0, &error), nullptr);
  expectFailure(error, log, expected);
  log.clear();
  EXPECT_EQ(zephal_communication_read(closed, 1.0, nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, expected.description}));
}

TEST(ZephalCommunicationReadTest, EndOfFileIsAFailureWithNumberZero) {
  LogCapture log;
  SocketPair pair;
  pair.closePeer();
  ZPKErrorPtr error = olderError();
  errno = EPERM;
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, &error), nullptr);
  expectFailure(error, log, readFailure(0));
  EXPECT_TRUE(isOpenDescriptor(pair.ours));
}

TEST(ZephalCommunicationReadTest, AFailedReadIsReportedWithASlotOrWithout) {
  LogCapture log;
  SocketPair pair;
  pair.send("hello");
  SystemCalls calls;
  calls.fail("read", EIO, 0, 2);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, &error), nullptr);
  expectFailure(error, log, readFailure(EIO));
  log.clear();
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, readFailure(EIO).description}));
}

TEST(ZephalCommunicationReadTest, AnInterruptedReadIsAFailure) {
  LogCapture log;
  SocketPair pair;
  pair.send("hello");
  SystemCalls calls;
  calls.fail("read", EINTR);
  ZPKErrorPtr error;
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, &error), nullptr);
  expectFailure(error, log, readFailure(EINTR));
}

TEST(ZephalCommunicationReadTest, AnAllocationThatFailsShowsAsAFailedRead) {
  LogCapture log;
  SocketPair pair;
  pair.send("hello");
  ZPKErrorPtr error;
  SystemCalls calls;
  calls.failAllocation();
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, &error), nullptr);
  expectFailure(error, log, readFailure(EFAULT));
}

TEST(ZephalCommunicationReadTest, ARealSignalDuringTheWaitRestartsIt) {
  SocketPair pair;
  const SignalHandler handler(SIGUSR1);
  SystemCalls calls(SystemCalls::Threads::kAll);
  std::promise<pthread_t> reader;
  ZPKErrorPtr error = olderError();
  auto result = std::async(std::launch::async, [&] {
    reader.set_value(::pthread_self());
    return zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_FOREVER, &error);
  });
  const pthread_t thread = reader.get_future().get();
  EXPECT_TRUE(signalUntil(thread, [&] { return calls.count("select forever") >= 3; }));
  pair.send("hello");
  const ZPKDataPtr data = result.get();
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->view(), "hello");
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(calls.count("read"), 1U);
}

// --- zephal_communication_write

TEST(ZephalCommunicationWriteTest, EmptyAndNullDataMakeNoSystemCall) {
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr empty = ZPKData::data();
  const SystemCalls calls;
  EXPECT_TRUE(zephal_communication_write(-1, empty, &error));
  EXPECT_TRUE(zephal_communication_write(-1, nullptr, &error));
  EXPECT_TRUE(zephal_communication_write_no_socket(-1, empty, &error));
  EXPECT_TRUE(zephal_communication_write_no_socket(-1, nullptr, &error));
  EXPECT_TRUE(calls.all().empty());
  EXPECT_EQ(error, olderError());
}

TEST(ZephalCommunicationWriteTest, WritesAllBytesInOneCallIfItCan) {
  SocketPair pair;
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = bytes(std::string_view("a\0b", 3));
  SystemCalls calls;
  EXPECT_TRUE(zephal_communication_write(pair.ours, data, &error));
  EXPECT_THAT(calls.texts(), ElementsAre("send"));
  EXPECT_EQ(pair.receive(), std::string("a\0b", 3));
  EXPECT_EQ(error, olderError());
}

TEST(ZephalCommunicationWriteTest, GoesOnAfterAPartialWriteUntilAllIsOut) {
  SocketPair pair;
  const ZPKDataPtr data = bytes("0123456789");
  SystemCalls calls;
  calls.shorten("send", 3, 0, 2);
  EXPECT_TRUE(zephal_communication_write(pair.ours, data, nullptr));
  const std::vector<SystemCall> all = calls.all();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].size, 10);
  EXPECT_EQ(all[1].size, 7);
  EXPECT_EQ(all[2].size, 4);
  EXPECT_EQ(pair.receive(), "0123456789");
}

TEST(ZephalCommunicationWriteTest, WaitsForAPeerThatReadsSlowly) {
  SocketPair pair;
  std::string sent(1000000, 'x');
  for (size_t at = 0; at < sent.size(); ++at) sent[at] = static_cast<char>('a' + at % 26);
  auto received = std::async(std::launch::async, [&] {
    std::string text;
    char buffer[1000];
    while (text.size() < sent.size()) {
      const ssize_t count = ::recv(pair.peers, buffer, sizeof buffer, 0);
      if (count <= 0) break;
      text.append(buffer, static_cast<size_t>(count));
    }
    return text;
  });
  EXPECT_TRUE(zephal_communication_write(pair.ours, bytes(sent), nullptr));
  EXPECT_TRUE(received.get() == sent);
}

TEST(ZephalCommunicationWriteTest, AFailureAfterAPartIsAFailureAndThePartStaysOut) {
  LogCapture log;
  SocketPair pair;
  const ZPKDataPtr data = bytes("0123456789");
  ZPKErrorPtr error = olderError();
  SystemCalls calls;
  calls.shorten("send", 3);
  calls.fail("send", EIO, 1);
  EXPECT_FALSE(zephal_communication_write(pair.ours, data, &error));
  expectFailure(error, log, writeFailure(EIO));
  EXPECT_EQ(pair.receive(), "012");
  EXPECT_TRUE(isOpenDescriptor(pair.ours));
}

TEST(ZephalCommunicationWriteTest, InterruptionAndEagainAreFailures) {
  for (const int number : {EINTR, EAGAIN}) {
    LogCapture log;
    SocketPair pair;
    ZPKErrorPtr error;
    SystemCalls calls;
    calls.fail("send", number);
    EXPECT_FALSE(zephal_communication_write(pair.ours, bytes("x"), &error));
    expectFailure(error, log, writeFailure(number));
    EXPECT_EQ(calls.count("send"), 1U);
  }
}

TEST(ZephalCommunicationWriteTest, AWriteOfNothingIsAFailureWithNumberZero) {
  LogCapture log;
  SocketPair pair;
  ZPKErrorPtr error;
  SystemCalls calls;
  calls.answer("send", 0);
  errno = EPERM;
  EXPECT_FALSE(zephal_communication_write(pair.ours, bytes("x"), &error));
  expectFailure(error, log, writeFailure(0));
}

TEST(ZephalCommunicationWriteTest, LogsWithANullSlotToo) {
  LogCapture log;
  EXPECT_FALSE(zephal_communication_write(-1, bytes("x"), nullptr));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, writeFailure(EBADF).description}));
}

TEST(ZephalCommunicationWriteTest, TakesWriteForWhatIsNoSocketAndStaysThere) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const ZPKDataPtr data = bytes("0123456789");
  {
    SystemCalls calls;
    calls.shorten("write", 4);
    EXPECT_TRUE(zephal_communication_write(ends[1], data, nullptr));
    EXPECT_THAT(calls.texts(), ElementsAre("send", "write", "write"));
  }
  char buffer[16];
  EXPECT_EQ(::read(ends[0], buffer, sizeof buffer), 10);
  EXPECT_EQ(std::string(buffer, 10), "0123456789");
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(ZephalCommunicationWriteTest, TheFormForOtherDescriptorsAsksWriteAlone) {
  LogCapture log;
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const ZPKDataPtr data = bytes("0123456789");
  ZPKErrorPtr error;
  SystemCalls calls;
  calls.shorten("write", 4);
  calls.fail("write", EIO, 1);
  EXPECT_FALSE(zephal_communication_write_no_socket(ends[1], data, &error));
  EXPECT_THAT(calls.texts({"send", "write"}), ElementsAre("write", "write"));
  expectFailure(error, log, writeFailure(EIO));
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(ZephalCommunicationWriteTest, APeerThatHasGoneGivesEpipeAndNoSignal) {
  // In a child, since a signal that comes would end it; with the default action, which the socket
  // functions may have changed in this process.
  const ChildResult result = runInChild([](std::string* message) {
    LogCapture log;
    ::signal(SIGPIPE, SIG_DFL);
    SocketPair pair;
    pair.closePeer();
    ZPKErrorPtr error;
    const bool hasWritten = zephal_communication_write(pair.ours, bytes("x"), &error);
    *message = error == nullptr ? "no error" : error->description();
    return hasWritten ? 1 : 0;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, writeFailure(EPIPE).description);
}

TEST(ZephalCommunicationWriteTest, APipeWithoutAReaderGivesEpipeAndNoSignal) {
  const ChildResult result = runInChild([](std::string* message) {
    LogCapture log;
    ::signal(SIGPIPE, SIG_DFL);
    int ends[2];
    if (::pipe(ends) != 0) return 2;
    ::close(ends[0]);
    ZPKErrorPtr error;
    const bool hasWritten = zephal_communication_write(ends[1], bytes("x"), &error);
    *message = error == nullptr ? "no error" : error->description();
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return hasWritten || ::sigismember(&mask, SIGPIPE) == 1 ? 1 : 0;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, writeFailure(EPIPE).description);
}

// --- ZPIFileDescriptorCommunication

// What a policy was asked.
struct PolicyRecord {
  int32_t descriptor = -1;    // what the next acquire leaves
  bool isAcquireGood = true;  // what it returns
  bool isCloseGood = true;
  int acquired = 0;
  std::vector<int32_t> closed;
  std::vector<bool> closedWithSlot;
};

class RecordingPolicy {
 public:
  static constexpr bool kIsSocket = true;

  explicit RecordingPolicy(PolicyRecord* record) : _record(record) {}

  bool acquire(int32_t* descriptor, ZPKErrorPtr* error) const {
    ++_record->acquired;
    *descriptor = _record->descriptor;
    if (!_record->isAcquireGood && error != nullptr) *error = stepError();
    return _record->isAcquireGood;
  }

  bool close(int32_t descriptor, ZPKErrorPtr* error) const {
    _record->closed.push_back(descriptor);
    _record->closedWithSlot.push_back(error != nullptr);
    if (!_record->isCloseGood && error != nullptr) *error = closeError();
    return _record->isCloseGood;
  }

  static ZPKErrorPtr stepError() {
    static const ZPKErrorPtr error = ZPKError::init("step", 4, {});
    return error;
  }
  static ZPKErrorPtr closeError() {
    static const ZPKErrorPtr error = ZPKError::init("close", 4, {});
    return error;
  }

 private:
  PolicyRecord* _record;
};

using RecordingCommunication = ZPIFileDescriptorCommunication<RecordingPolicy>;

ExpectedFailure templateFailure(int code, const char* description, const char* function) {
  return {"zephal-communication", code, description, function, "DescriptorOperation.h"};
}

class FileDescriptorCommunicationTest : public testing::Test {
 protected:
  RecordingCommunication closedOne() {
    return RecordingCommunication(-1, RecordingPolicy(&_record));
  }
  RecordingCommunication openOne() {
    return RecordingCommunication(_pair.ours, RecordingPolicy(&_record));
  }

  PolicyRecord _record;
  SocketPair _pair;
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
};

TEST_F(FileDescriptorCommunicationTest, OpensWithWhatThePolicyAcquires) {
  auto communication = closedOne();
  EXPECT_FALSE(communication.isOpen());
  _record.descriptor = _pair.ours;
  EXPECT_TRUE(communication.openWithTimeout(-0.5, &_error));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(communication.write(bytes("x"), &_error));
  EXPECT_EQ(_pair.receive(), "x");
}

TEST_F(FileDescriptorCommunicationTest, DescriptorZeroIsOpen) {
  RecordingCommunication communication(0, RecordingPolicy(&_record));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_TRUE(communication.close(&_error));
  EXPECT_THAT(_record.closed, ElementsAre(0));
}

TEST_F(FileDescriptorCommunicationTest, AFailedOpenClosesWhatItLeftAndKeepsTheErrorOfTheStep) {
  auto communication = closedOne();
  _record.descriptor = 77;
  _record.isAcquireGood = false;
  _record.isCloseGood = false;
  EXPECT_FALSE(communication.openWithTimeout(1.0, &_error));
  EXPECT_EQ(_error, RecordingPolicy::stepError());
  EXPECT_FALSE(communication.isOpen());
  EXPECT_THAT(_record.closed, ElementsAre(77));
  EXPECT_THAT(_record.closedWithSlot, ElementsAre(false));
}

TEST_F(FileDescriptorCommunicationTest, AFailedOpenThatLeftNothingClosesNothing) {
  auto communication = closedOne();
  _record.isAcquireGood = false;
  EXPECT_FALSE(communication.openWithTimeout(1.0, &_error));
  EXPECT_FALSE(communication.isOpen());
  EXPECT_TRUE(_record.closed.empty());
}

TEST_F(FileDescriptorCommunicationTest, OpeningAnOpenOneFailsAndKeepsTheDescriptor) {
  auto communication = openOne();
  EXPECT_FALSE(communication.openWithTimeout(1.0, &_error));
  expectFailure(_error, _log, templateFailure(1, "Device Already Opened", "openWithTimeout"));
  EXPECT_FALSE(communication.openWithTimeout(1.0, nullptr));
  EXPECT_EQ(_log.count("Device Already Opened"), 2U);
  EXPECT_EQ(_record.acquired, 0);
  EXPECT_TRUE(communication.write(bytes("x"), nullptr));
  EXPECT_EQ(_pair.receive(), "x");
}

TEST_F(FileDescriptorCommunicationTest, ClosingAClosedOneFailsAndTouchesNothing) {
  auto communication = closedOne();
  {
    const SystemCalls calls;
    EXPECT_FALSE(communication.close(&_error));
    EXPECT_TRUE(calls.all().empty());
  }
  expectFailure(_error, _log, templateFailure(2, "Device Already Closed", "close"));
  EXPECT_FALSE(communication.close(nullptr));
  EXPECT_EQ(_log.count("Device Already Closed"), 2U);
  EXPECT_TRUE(_record.closed.empty());
}

TEST_F(FileDescriptorCommunicationTest, IsClosedEvenIfThePolicysCloseFails) {
  auto communication = openOne();
  _record.isCloseGood = false;
  EXPECT_FALSE(communication.close(&_error));
  EXPECT_EQ(_error, RecordingPolicy::closeError());
  EXPECT_FALSE(communication.isOpen());
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
}

TEST_F(FileDescriptorCommunicationTest, CanBeOpenedAgainAfterAClose) {
  auto communication = openOne();
  EXPECT_TRUE(communication.close(&_error));
  _record.descriptor = _pair.ours;
  EXPECT_TRUE(communication.openWithTimeout(1.0, &_error));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
}

TEST_F(FileDescriptorCommunicationTest, ReadingAClosedOneFailsWithCode2) {
  auto communication = closedOne();
  // Checked ahead of the timeout.
  EXPECT_EQ(communication.readWithTimeout(-0.5, &_error), nullptr);
  expectFailure(_error, _log,
                templateFailure(2, "Cannot communicate with closed devices", "readWithTimeout"));
  EXPECT_EQ(communication.readWithTimeout(1.0, nullptr), nullptr);
  EXPECT_EQ(_log.count("Cannot communicate with closed devices"), 2U);
}

TEST_F(FileDescriptorCommunicationTest, WritingAClosedOneFailsWithCode2EvenWithNothingToWrite) {
  auto communication = closedOne();
  EXPECT_FALSE(communication.write(ZPKData::data(), &_error));
  expectFailure(_error, _log,
                templateFailure(2, "Cannot communicate with closed devices", "write"));
  EXPECT_FALSE(communication.write(nullptr, nullptr));
  EXPECT_EQ(_log.count("Cannot communicate with closed devices"), 2U);
}

TEST_F(FileDescriptorCommunicationTest, RefusesABadTimeoutBeforeAnySystemCall) {
  auto communication = openOne();
  for (const double timeout : {-0.5, -1.0000001, -2.0, -std::numeric_limits<double>::infinity(),
                               std::nan(""), -1.0e-300}) {
    _log.clear();
    {
      const SystemCalls calls;
      EXPECT_EQ(communication.readWithTimeout(timeout, &_error), nullptr);
      EXPECT_TRUE(calls.all().empty());
    }
    expectFailure(_error, _log,
                  templateFailure(3, "time out has an invalid value", "readWithTimeout"));
    EXPECT_TRUE(communication.isOpen());
  }
  _log.clear();
  EXPECT_EQ(communication.readWithTimeout(-0.5, nullptr), nullptr);
  EXPECT_EQ(_log.count("time out has an invalid value"), 1U);
  EXPECT_TRUE(_record.closed.empty());
}

TEST_F(FileDescriptorCommunicationTest, TakesEveryGoodTimeout) {
  auto communication = openOne();
  for (const double timeout : {0.0, -0.0, 0.5, 1.0e300, -1.0}) {
    _pair.send("x");
    const ZPKDataPtr data = communication.readWithTimeout(timeout, &_error);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "x");
  }
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(FileDescriptorCommunicationTest, AReadThatTimesOutLeavesItOpen) {
  auto communication = openOne();
  EXPECT_EQ(communication.readWithTimeout(0.01, &_error)->length(), 0U);
  EXPECT_EQ(communication.readWithTimeout(0.0, &_error)->length(), 0U);
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(FileDescriptorCommunicationTest, AFailedReadClosesAndALaterCloseFails) {
  auto communication = openOne();
  _pair.closePeer();
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error), nullptr);
  expectFailure(_error, _log, readFailure(0));
  EXPECT_FALSE(communication.isOpen());
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
  EXPECT_THAT(_record.closedWithSlot, ElementsAre(true));
  EXPECT_FALSE(communication.close(&_error));
  expectError(_error, templateFailure(2, "Device Already Closed", "close"));
}

TEST_F(FileDescriptorCommunicationTest, UnderForeverAFailedReadLogsTwiceAndTellsOfTheClient) {
  auto communication = openOne();
  _pair.closePeer();
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error), nullptr);
  expectError(_error, templateFailure(5, "Client disconnected", "readWithTimeout"));
  EXPECT_THAT(_log.lines(), ElementsAre(LogLine{0, readFailure(0).description},
                                        LogLine{0, "Client disconnected"}));
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, UnderForeverANullSlotLogsTwiceAsWell) {
  auto communication = openOne();
  _pair.closePeer();
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr), nullptr);
  EXPECT_THAT(_log.texts(), ElementsAre(readFailure(0).description, "Client disconnected"));
}

TEST_F(FileDescriptorCommunicationTest, AFailedSelectClosesToo) {
  auto communication = openOne();
  SystemCalls calls;
  calls.fail("select", EINVAL);
  EXPECT_EQ(communication.readWithTimeout(1.0, &_error), nullptr);
  EXPECT_EQ(_error->description(),
            "Select failed with error " + numbered(EINVAL) + ", fd=" + std::to_string(_pair.ours));
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, AFailedCloseReplacesTheErrorOfTheRead) {
  auto communication = openOne();
  _pair.closePeer();
  _record.isCloseGood = false;
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error), nullptr);
  EXPECT_EQ(_error, RecordingPolicy::closeError());
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, UnderForeverTheClientReplacesTheFailedCloseToo) {
  auto communication = openOne();
  _pair.closePeer();
  _record.isCloseGood = false;
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error), nullptr);
  expectError(_error, templateFailure(5, "Client disconnected", "readWithTimeout"));
}

TEST_F(FileDescriptorCommunicationTest, AFailedWriteLeavesItOpen) {
  auto communication = openOne();
  {
    SystemCalls calls;
    calls.fail("send", EIO);
    EXPECT_FALSE(communication.write(bytes("x"), &_error));
  }
  expectFailure(_error, _log, writeFailure(EIO));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_TRUE(_record.closed.empty());
  EXPECT_TRUE(communication.write(bytes("x"), nullptr));
}

TEST_F(FileDescriptorCommunicationTest, ARealSignalDuringTheReadItselfClosesIt) {
  auto communication = openOne();
  const SignalHandler handler(SIGUSR1);
  SystemCalls calls(SystemCalls::Threads::kAll);
  // Somebody else takes the bytes between select and read, so that the read blocks.
  calls.before("read", [&] {
    char buffer[8];
    EXPECT_EQ(::recv(_pair.ours, buffer, sizeof buffer, 0), 5);
  });
  _pair.send("hello");
  std::promise<pthread_t> reader;
  auto result = std::async(std::launch::async, [&] {
    reader.set_value(::pthread_self());
    return communication.readWithTimeout(20.0, &_error);
  });
  const pthread_t thread = reader.get_future().get();
  EXPECT_TRUE(signalUntil(thread, [&] {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }));
  _pair.send("x");  // frees a reader that no signal reached
  EXPECT_EQ(result.get(), nullptr);
  expectFailure(_error, _log, readFailure(EINTR));
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, AWriterAndAReaderRunBesideEachOther) {
  auto communication = openOne();
  constexpr int kRounds = 200;
  auto writer = std::async(std::launch::async, [&] {
    for (int round = 0; round < kRounds; ++round) {
      if (!communication.isOpen() || !communication.write(bytes("w"), nullptr)) return false;
    }
    return true;
  });
  auto peer = std::async(std::launch::async, [&] {
    for (int round = 0; round < kRounds; ++round) _pair.send("r");
  });
  size_t read = 0;
  while (read < kRounds) {
    const ZPKDataPtr data = communication.readWithTimeout(20.0, &_error);
    ASSERT_NE(data, nullptr);
    ASSERT_NE(data->length(), 0U);
    read += data->length();
  }
  EXPECT_TRUE(writer.get());
  peer.get();
  EXPECT_EQ(_pair.receive().size(), static_cast<size_t>(kRounds));
}

// --- A close while others are in a call

// A policy whose writes no close can end.
class RecordingLinePolicy : public RecordingPolicy {
 public:
  static constexpr bool kIsSocket = false;

  using RecordingPolicy::RecordingPolicy;
};

// Writes more than a socket holds, and returns once that has begun.
template <class Communication>
std::future<bool> startLongWrite(Communication* communication, const SocketPair& pair,
                                 ZPKErrorPtr* error) {
  auto result = std::async(std::launch::async, [communication, error] {
    return communication->write(bytes(std::string(8U << 20U, 'x')), error);
  });
  EXPECT_TRUE(waitUntilReadable(pair.peers));
  return result;
}

// With a line the writer stays inside until its peer goes, so that it is surely the last one out.
using RecordingLine = ZPIFileDescriptorCommunication<RecordingLinePolicy>;

TEST_F(FileDescriptorCommunicationTest, ACloseLeavesTheSystemsCloseToAWriter) {
  const SignalHandler noBrokenPipe(SIGPIPE);
  RecordingLine communication(_pair.ours, RecordingLinePolicy(&_record));
  _record.isCloseGood = false;
  ZPKErrorPtr writeError;
  auto writer = startLongWrite(&communication, _pair, &writeError);
  EXPECT_TRUE(communication.close(&_error));
  EXPECT_FALSE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
  _pair.closePeer();
  EXPECT_FALSE(writer.get());
  expectFailure(writeError, _log, writeFailure(EBADF));
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
  EXPECT_THAT(_record.closedWithSlot, ElementsAre(false));
}

TEST_F(FileDescriptorCommunicationTest, AFailedReadLeavesTheSystemsCloseToAWriter) {
  const SignalHandler noBrokenPipe(SIGPIPE);
  RecordingLine communication(_pair.ours, RecordingLinePolicy(&_record));
  _record.isCloseGood = false;
  auto writer = startLongWrite(&communication, _pair, nullptr);
  ::shutdown(_pair.peers, SHUT_WR);
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error), nullptr);
  expectError(_error, readFailure(0));
  EXPECT_FALSE(communication.isOpen());
  _pair.closePeer();
  EXPECT_FALSE(writer.get());
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
  EXPECT_THAT(_record.closedWithSlot, ElementsAre(false));
}

TEST_F(FileDescriptorCommunicationTest, AnOldWriterNeverReachesWhatIsOpenedNext) {
  const SignalHandler noBrokenPipe(SIGPIPE);
  SocketPair next;
  RecordingLine communication(_pair.ours, RecordingLinePolicy(&_record));
  ZPKErrorPtr writeError;
  auto writer = startLongWrite(&communication, _pair, &writeError);
  EXPECT_TRUE(communication.close(nullptr));
  _record.descriptor = next.ours;
  EXPECT_TRUE(communication.openWithTimeout(1.0, nullptr));
  _pair.closePeer();
  EXPECT_FALSE(writer.get());
  expectError(writeError, writeFailure(EBADF));
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
  EXPECT_EQ(next.receive(), "");
  EXPECT_TRUE(communication.write(bytes("new"), nullptr));
  EXPECT_EQ(next.receive(), "new");
  EXPECT_TRUE(communication.close(&_error));
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours, next.ours));
  EXPECT_EQ(_error, olderError());
}

TEST_F(FileDescriptorCommunicationTest, ACloseAndAFailedReadCloseExactlyOnce) {
  for (int round = 0; round < 200; ++round) {
    SocketPair pair;
    PolicyRecord record;
    RecordingCommunication communication(pair.ours, RecordingPolicy(&record));
    ZPKErrorPtr readError;
    std::promise<void> begin;
    auto reader = std::async(std::launch::async, [&, start = begin.get_future()] {
      start.wait();
      return communication.readWithTimeout(20.0, &readError);
    });
    begin.set_value();
    pair.closePeer();
    const bool isClosed = communication.close(&_error);
    EXPECT_EQ(reader.get(), nullptr);
    EXPECT_EQ(record.closed.size(), 1U);
    EXPECT_FALSE(communication.isOpen());
    const bool hasReadLost = readError->code() == 2;
    EXPECT_EQ(isClosed, hasReadLost);
    if (!isClosed) expectError(_error, templateFailure(2, "Device Already Closed", "close"));
  }
}

TEST_F(FileDescriptorCommunicationTest, IsDestroyedWithoutAClose) {
  {
    const auto communication = openOne();
    EXPECT_TRUE(communication.isOpen());
  }
  EXPECT_TRUE(_record.closed.empty());
  EXPECT_TRUE(isOpenDescriptor(_pair.ours));
}

// --- Descriptors that do not fit a set

class LargeDescriptorTest : public FileDescriptorCommunicationTest {
 protected:
  LargeDescriptorTest() {
    ::getrlimit(RLIMIT_NOFILE, &_before);
    rlimit raised = _before;
    raised.rlim_cur = std::min<rlim_t>(raised.rlim_max, 4096);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
  }
  ~LargeDescriptorTest() override { ::setrlimit(RLIMIT_NOFILE, &_before); }

  // Our end again, under a number of `lowest` or above.
  void move(int lowest) {
    const int moved = ::fcntl(_pair.ours, F_DUPFD_CLOEXEC, lowest);
    ASSERT_GE(moved, lowest);
    ::close(_pair.ours);
    _pair.ours = moved;
  }

  rlimit _before{};
};

TEST_F(LargeDescriptorTest, TheLastOneThatFitsIsReadAsUsual) {
  move(FD_SETSIZE - 1);
  ASSERT_EQ(_pair.ours, FD_SETSIZE - 1);
  auto communication = openOne();
  _pair.send("x");
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error)->view(), "x");
  EXPECT_EQ(communication.readWithTimeout(0.01, &_error)->length(), 0U);
}

TEST_F(LargeDescriptorTest, AReadEndsAsIfNothingHadArrived) {
  for (const int lowest : {FD_SETSIZE, FD_SETSIZE + 500}) {
    move(lowest);
    auto communication = openOne();
    _pair.send("x");
    SystemCalls calls;
    EXPECT_EQ(communication.readWithTimeout(0.02, &_error)->length(), 0U);
    EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "select 0.020000"));
    EXPECT_EQ(calls.all().back().size, FD_SETSIZE);
    EXPECT_TRUE(communication.isOpen());
  }
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(LargeDescriptorTest, AReadWithoutALimitEndsAsWell) {
  move(FD_SETSIZE);
  auto communication = openOne();
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error)->length(),
            0U);
  EXPECT_TRUE(communication.isOpen());
}

TEST_F(LargeDescriptorTest, TheLargestNumberOfAllIsOneOfThem) {
  RecordingCommunication communication(std::numeric_limits<int32_t>::max(),
                                       RecordingPolicy(&_record));
  for (const double timeout : {0.01, ZEPHAL_COMMUNICATION_TIME_FOREVER}) {
    SystemCalls calls;
    EXPECT_EQ(communication.readWithTimeout(timeout, &_error)->length(), 0U);
    EXPECT_EQ(calls.all().back().size, FD_SETSIZE);
  }
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
}

TEST_F(LargeDescriptorTest, NowAndWritesWorkAsEver) {
  move(FD_SETSIZE + 100);
  auto communication = openOne();
  _pair.send("x");
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &_error)->view(), "x");
  EXPECT_TRUE(communication.write(bytes("y"), &_error));
  EXPECT_EQ(_pair.receive(), "y");
}

}  // namespace
