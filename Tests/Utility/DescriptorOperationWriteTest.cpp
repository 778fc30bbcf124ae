#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Support/DescriptorFailures.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Utility/DescriptorOperation.h"
#include "Utility/ZPKData.h"

using namespace support;

namespace {

using testing::ElementsAre;

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
  const ZPKDataPtr data = dataOf(std::string_view("a\0b", 3));
  SystemCalls calls;
  EXPECT_TRUE(zephal_communication_write(pair.ours, data, &error));
  EXPECT_THAT(calls.texts(), ElementsAre("send"));
  EXPECT_EQ(pair.receive(), std::string("a\0b", 3));
  EXPECT_EQ(error, olderError());
}

TEST(ZephalCommunicationWriteTest, ContinuesAfterAPartialWriteUntilAllIsSent) {
  SocketPair pair;
  const ZPKDataPtr data = dataOf("0123456789");
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
  EXPECT_TRUE(zephal_communication_write(pair.ours, dataOf(sent), nullptr));
  EXPECT_TRUE(received.get() == sent);
}

TEST(ZephalCommunicationWriteTest, AFailureAfterAPartialWriteLeavesThatPartSent) {
  LogCapture log;
  SocketPair pair;
  const ZPKDataPtr data = dataOf("0123456789");
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
    EXPECT_FALSE(zephal_communication_write(pair.ours, dataOf("x"), &error));
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
  EXPECT_FALSE(zephal_communication_write(pair.ours, dataOf("x"), &error));
  expectFailure(error, log, writeFailure(0));
}

TEST(ZephalCommunicationWriteTest, LogsEvenWithANullSlot) {
  LogCapture log;
  EXPECT_FALSE(zephal_communication_write(-1, dataOf("x"), nullptr));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, writeFailure(EBADF).description}));
}

TEST(ZephalCommunicationWriteTest, FallsBackToWriteForOtherDescriptorsAndStaysThere) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const ZPKDataPtr data = dataOf("0123456789");
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

TEST(ZephalCommunicationWriteTest, TheFormForOtherDescriptorsOnlyCallsWrite) {
  LogCapture log;
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const ZPKDataPtr data = dataOf("0123456789");
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
  // In a child, since a signal would end the process; with the default action, which the socket
  // functions may have changed in this process.
  const ChildResult result = runInChild([](std::string* message) {
    LogCapture log;
    ::signal(SIGPIPE, SIG_DFL);
    SocketPair pair;
    pair.closePeer();
    ZPKErrorPtr error;
    const bool hasWritten = zephal_communication_write(pair.ours, dataOf("x"), &error);
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
    const bool hasWritten = zephal_communication_write(ends[1], dataOf("x"), &error);
    *message = error == nullptr ? "no error" : error->description();
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return hasWritten || ::sigismember(&mask, SIGPIPE) == 1 ? 1 : 0;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, writeFailure(EPIPE).description);
}

}  // namespace
