#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <string>

#include "Support/Bytes.h"
#include "Support/DescriptorFailures.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/FileDescriptorCommunicationFixture.h"
#include "Support/OpenDescriptors.h"
#include "Support/SignalHandler.h"
#include "Support/SocketPair.h"
#include "Utility/DescriptorOperation.h"

using namespace support;

namespace {

using testing::ElementsAre;

using FileDescriptorCommunicationCloseTest = FileDescriptorCommunicationFixture;

// A policy whose writes cannot be ended by a close.
class RecordingLinePolicy : public RecordingPolicy {
 public:
  static constexpr bool kIsSocket = false;

  using RecordingPolicy::RecordingPolicy;
};

// Starts to write more than a socket buffers, and returns once the first bytes have arrived.
template <class Communication>
std::future<bool> startLongWrite(Communication* communication, const SocketPair& pair,
                                 ZPKErrorPtr* error) {
  auto result = std::async(std::launch::async, [communication, error] {
    return communication->write(dataOf(std::string(8U << 20U, 'x')), error);
  });
  EXPECT_TRUE(waitUntilReadable(pair.peers));
  return result;
}

// On a line the writer stays inside until its peer hangs up, so it is certainly the last one out.
using RecordingLine = ZPIFileDescriptorCommunication<RecordingLinePolicy>;

TEST_F(FileDescriptorCommunicationCloseTest, ACloseLeavesTheSystemsCloseToAWriter) {
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

TEST_F(FileDescriptorCommunicationCloseTest, AFailedReadLeavesTheSystemsCloseToAWriter) {
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

TEST_F(FileDescriptorCommunicationCloseTest, AnOldWriterNeverWritesToTheNextDescriptor) {
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
  EXPECT_TRUE(communication.write(dataOf("new"), nullptr));
  EXPECT_EQ(next.receive(), "new");
  EXPECT_TRUE(communication.close(&_error));
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours, next.ours));
  EXPECT_EQ(_error, olderError());
}

TEST_F(FileDescriptorCommunicationCloseTest, ACloseAndAFailedReadCloseExactlyOnce) {
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
    if (!isClosed) expectError(_error, communicationFailure(2, "Device Already Closed", "close"));
  }
}

TEST_F(FileDescriptorCommunicationCloseTest, IsDestroyedWithoutAClose) {
  {
    const auto communication = openOne();
    EXPECT_TRUE(communication.isOpen());
  }
  EXPECT_TRUE(_record.closed.empty());
  EXPECT_TRUE(isOpenDescriptor(_pair.ours));
}

}  // namespace
