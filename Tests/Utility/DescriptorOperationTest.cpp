#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/select.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <future>
#include <limits>
#include <string>
#include <utility>

#include "Support/DescriptorFailures.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/SignalHandler.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Utility/DescriptorOperation.h"
#include "Utility/ZPKData.h"

using namespace support;

namespace {

using testing::ElementsAre;

// --- select_with_retry

TEST(SelectWithRetryTest, ReturnsTheCountOfReadableDescriptors) {
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

TEST(ReadWithRetryTest, SpinsOnEagainUntilSomethingArrives) {
  SocketPair pair;
  pair.send("abc");
  char buffer[8];
  SystemCalls calls;
  calls.fail("read", EAGAIN, 0, 1000);
  EXPECT_EQ(read_with_retry(pair.ours, buffer, sizeof buffer), ZPICallResult(3, 0));
  EXPECT_EQ(calls.count("read"), 1001U);
}

TEST(ReadWithRetryTest, AnInterruptionIsZeroBytesAndNoRetry) {
  SocketPair pair;
  pair.send("abc");
  char buffer[8];
  SystemCalls calls;
  calls.fail("read", EINTR);
  EXPECT_EQ(read_with_retry(pair.ours, buffer, sizeof buffer), ZPICallResult(0, EINTR));
  EXPECT_EQ(calls.count("read"), 1U);
}

TEST(ReadWithRetryTest, AnInterruptionOverridesAResult) {
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
  pair.send("x");  // releases a reader that no signal reached
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

TEST(ZephalCommunicationReadTest, NowNeverDetectsThatThePeerHasGone) {
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
  // One for the bytes, one for the object that holds them.
  EXPECT_EQ(calls.allocations(), 2U);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 60000U);
}

TEST(ZephalCommunicationReadTest, ATimeoutGivesEmptyDataAndLeavesTheSlot) {
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

// Where a time_t has 32 bits, longer waits last until its end.
constexpr bool kHasLongTime = sizeof(time_t) > 4;
const std::string kWaitToTheEnd = "select 2147483647.000000";

TEST(ZephalCommunicationReadTest, SplitsTheTimeoutIntoSecondsAndWholeMicroseconds) {
  SocketPair pair;
  pair.send(std::string(16, 'x'));
  const std::pair<double, std::string> cases[] = {
      {1.5, "select 1.500000"},
      {1.0 / 30.0, "select 0.033333"},
      {20.0, "select 20.000000"},
      {0.0000019, "select 0.000001"},
      {1.0e-300, "select 0.000000"},
      {2.9999999, "select 2.999999"},
      {-1.0, "select forever"},
      {3000000000.25, kHasLongTime ? "select 3000000000.250000" : kWaitToTheEnd},
  };
  for (const auto& [timeout, text] : cases) {
    SystemCalls calls;
    // One byte per read, so that there is always something to read.
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
    // Arrives only once the wait has begun.
    calls.before("select", [&] { pair.send("late"); });
    const ZPKDataPtr data = zephal_communication_read(pair.ours, timeout, nullptr);
    EXPECT_EQ(calls.count(kHasLongTime ? "select 1000000000000.000000" : kWaitToTheEnd), 1U);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "late");
  }
}

TEST(ZephalCommunicationReadTest, ReturnsOnlyTheBytesThatWereWaitingAtEntry) {
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
      "Select failed with error " + numberedErrorText(EBADF) + ", fd=" + std::to_string(closed),
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

TEST(ZephalCommunicationReadTest, AFailedAllocationIsReportedAsAFailedRead) {
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

}  // namespace
