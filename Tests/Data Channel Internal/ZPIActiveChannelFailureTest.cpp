// An active channel whose line has failed, or whose thread could not be started.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "Support/ActiveChannelFixture.h"
#include "Support/ThreadCalls.h"
#include "Support/Timeouts.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZPIActiveChannelFailureTest : public ActiveChannelFixture {};

// --- Failed

TEST_F(ZPIActiveChannelFailureTest, FailedItIsClosedAndReadsNoMore) {
  makeFailed();
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_FALSE(_line->isBeingRead());
}

TEST_F(ZPIActiveChannelFailureTest, FailedItRejectsReadsAndWrites) {
  makeFailed();
  expectTalkRefusedAsClosed();
}

TEST_F(ZPIActiveChannelFailureTest, FailedItPassesAReset) {
  makeFailed();
  expectResetForwarded();
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelFailureTest, FailedItsCloseRepeatsTheErrorUnderCode2) {
  makeFailed();
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelFailureTest, FailedWithoutAnErrorItCannotBeClosed) {
  makeFailed(nullptr);
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelFailureTest, FailedItCanBeReopenedAndForgetsTheError) {
  makeFailed();
  expectOpens();
  EXPECT_TRUE(close());
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelFailureTest, FailedItKeepsTheErrorWhenTheNextOpenFails) {
  makeFailed();
  _line->setOpenResult(false);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelFailureTest, ALineThatFailsButStaysOpenStartsNoThread) {
  makeRunning();
  _line->fail(deviceError(), false);
  ASSERT_TRUE(waitForFailure(deviceError()));
  ASSERT_TRUE(_line->isOpened());
  const size_t reads = _line->reads();
  _line->setOpenResult(true, olderError());  // with this it rejects a second open
  ZPKErrorPtr error;
  EXPECT_TRUE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(_channel->isOpened());
  expectTalkRefusedAsClosed();
  EXPECT_EQ(_line->reads(), reads);
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelFailureTest, AFailureReachesTheWaitingReadUnchanged) {
  for (const double timeout : {kForever, kLong}) {
    makeRunning();
    const ReplacedWaits wait([&] {
      _line->fail(deviceError());
      EXPECT_TRUE(waitForFailure(deviceError()));
      return 0;
    });
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(_channel->readWithTimeout(timeout, &error), nullptr);
    EXPECT_EQ(error, deviceError());
    EXPECT_EQ(_channel->readWithTimeout(timeout, nullptr), nullptr);
  }
}

TEST_F(ZPIActiveChannelFailureTest, AFailureWakesTheReadThatWaitsForever) {
  makeRunning();
  ZPKErrorPtr error = olderError();
  std::future<ZPKDataPtr> read = readForeverElsewhere(&error);
  _line->fail(deviceError());
  ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(read.get(), nullptr);
  // The error is stored a moment after the read is woken, so the read may miss it.
  EXPECT_TRUE(error == deviceError() || error == nullptr);
}

TEST_F(ZPIActiveChannelFailureTest, UnreadBytesAreLostWhenTheLineFails) {
  makeRunning();
  _line->deliver("lost");
  ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
  _line->fail(deviceError());
  ASSERT_TRUE(waitForFailure(deviceError()));
  expectReadRefused(kNow, 2, "Cannot communicate with closed devices");
  ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kNow, nullptr)), "");
}

TEST_F(ZPIActiveChannelFailureTest, BytesOfAWaitingReadAreDroppedAtAFailure) {
  makeRunning();
  // The bytes and then the failure arrive while the read waits: it wakes up with bytes from a
  // closed queue.
  const ReplacedWaits wait([&] {
    _line->deliver("dropped");
    _line->fail(deviceError());
    EXPECT_TRUE(waitForFailure(deviceError()));
    return 0;
  });
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(_channel->readWithTimeout(kLong, &error), nullptr);
  EXPECT_EQ(error, deviceError());
}

TEST_F(ZPIActiveChannelFailureTest, AFailureStopsAReadWithoutASlot) {
  makeRunning();
  std::future<ZPKDataPtr> read = readForeverElsewhere(nullptr);
  _line->fail(deviceError());
  ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(read.get(), nullptr);
}

// --- Without a thread

const ExpectedFailure kNoThread{"zephal-communication", 5, "Failed to start thread",
                                "detach_read_loop__unsafe", "ZPIActiveChannel.cpp"};

TEST_F(ZPIActiveChannelFailureTest, WithoutAThreadItFailsToOpenAndClosesBelow) {
  makeNeverOpened();
  ZPKErrorPtr error = olderError();
  {
    const LogCapture log;
    const RefusedThreads refused;
    EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
    expectFailure(error, log, kNoThread);
    EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
    EXPECT_EQ(log.count("Failed to start thread"), 2U);
  }
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_FALSE(_line->isOpened());
  EXPECT_EQ(_line->reads(), 0U);
  expectTalkRefusedAsClosed();
  expectResetForwarded();
  const LogCapture log;
  EXPECT_FALSE(close(&error));
  EXPECT_EQ(error->code(), 2);
  EXPECT_EQ(error->description(), "Failed to start thread");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPIActiveChannelFailureTest, ItCanBeReopenedOnceThereIsAThread) {
  makeNeverOpened();
  {
    const LogCapture log;
    const RefusedThreads refused;
    EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  }
  expectOpens();
  EXPECT_TRUE(close());
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelFailureTest, WithoutAThreadAnOpenLineStaysOpen) {
  _line = WaitingChannel::makeOpen();
  {
    const LogCapture log;
    const RefusedThreads refused;
    _channel = ZPIActiveChannel::initWithChannel(_line, true);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Failed to start thread"}));
  }
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_TRUE(_line->isOpened());
  expectTalkRefusedAsClosed();
  ZPKErrorPtr error;
  EXPECT_FALSE(close(&error));
  EXPECT_EQ(error->code(), 2);
  EXPECT_EQ(error->description(), "Failed to start thread");
  _channel = ZPIActiveChannel::initWithChannel(_line, true);
  EXPECT_TRUE(_channel->isOpened());
  expectDelivers("after all");
}

}  // namespace
