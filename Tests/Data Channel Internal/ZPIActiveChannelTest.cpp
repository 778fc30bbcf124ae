#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/ActiveChannelFixture.h"
#include "Support/Timeouts.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZPIActiveChannelTest : public ActiveChannelFixture {};

// --- Never opened

TEST_F(ZPIActiveChannelTest, NeverOpenedItIsClosed) {
  makeNeverOpened();
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_EQ(_line->reads(), 0U);
}

TEST_F(ZPIActiveChannelTest, NeverOpenedItRejectsReadsAndWrites) {
  makeNeverOpened();
  expectTalkRefusedAsClosed();
}

TEST_F(ZPIActiveChannelTest, NeverOpenedItPassesAReset) {
  makeNeverOpened();
  expectResetForwarded();
}

TEST_F(ZPIActiveChannelTest, NeverOpenedItCannotBeClosed) {
  makeNeverOpened();
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelTest, NeverOpenedItOpensBelowAndStartsItsThread) {
  makeNeverOpened();
  expectOpens();
  EXPECT_EQ(_line->count("open"), 1U);
}

TEST_F(ZPIActiveChannelTest, AFailedOpenBelowStartsNoThread) {
  makeNeverOpened();
  _line->setOpenResult(false, deviceError());
  const LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, deviceError());
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(_line->reads(), 0U);
  expectCloseRefused();
  expectTalkRefusedAsClosed();
}

TEST_F(ZPIActiveChannelTest, AFailedOpenBelowWithoutErrorLeavesTheSlotAlone) {
  class SilentlyFailing final : public ZPKDataChannel {
    bool openWithTimeout(double, ZPKErrorPtr*) override { return false; }
    bool close(ZPKErrorPtr*) override { return false; }
    bool reset(ZPKErrorPtr*) override { return true; }
    bool isOpened() const override { return false; }
    ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override { return nullptr; }
    bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return false; }
  };
  const auto channel = ZPIActiveChannel::initWithChannel(std::make_shared<SilentlyFailing>(), true);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, olderError());
}

// --- Running

TEST_F(ZPIActiveChannelTest, RunningItIsOpen) {
  makeRunning();
  EXPECT_TRUE(_channel->isOpened());
}

TEST_F(ZPIActiveChannelTest, RunningItReadsBelowInSlicesUnasked) {
  makeRunning();
  expectReadsInSlices();
}

TEST_F(ZPIActiveChannelTest, RunningItPassesWrites) {
  makeRunning();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->write(ZPKData::dataWithString("command"), &error));
  EXPECT_TRUE(_channel->write(ZPKData::data(), &error));
  EXPECT_TRUE(_channel->write(nullptr, &error));
  EXPECT_EQ(error, olderError());
  _line->setWriteResult(false, deviceError());
  EXPECT_FALSE(_channel->write(ZPKData::dataWithString("lost"), &error));
  EXPECT_EQ(error, deviceError());
  EXPECT_THAT(_line->writes(), ElementsAre("command", "", std::nullopt, "lost"));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(_channel->isOpened());
}

TEST_F(ZPIActiveChannelTest, RunningItRejectsAResetAndGoesOn) {
  makeRunning();
  expectResetRefused();
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelTest, RunningItRejectsASecondOpenAndGoesOn) {
  makeRunning();
  expectOpenRefused();
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelTest, RunningItEndsItsThreadAndThenClosesBelow) {
  makeRunning();
  ASSERT_TRUE(waitFor([&] { return _line->isBeingRead(); }));
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_FALSE(_line->isOpened());
  EXPECT_FALSE(_line->isBeingRead());
  EXPECT_EQ(_line->count("close"), 1U);
  // A reader that still ran when the line was closed would have failed.
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelTest, TheResultOfTheCloseBelowIsTheResult) {
  makeRunning();
  _line->setCloseResult(false, deviceError());
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(close(&error));
  EXPECT_EQ(error, deviceError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(_channel->isOpened());
}

// --- Closed

TEST_F(ZPIActiveChannelTest, ClosedItIsClosed) {
  makeClosed();
  EXPECT_FALSE(_channel->isOpened());
}

TEST_F(ZPIActiveChannelTest, ClosedItRejectsReadsAndWrites) {
  makeClosed();
  expectTalkRefusedAsClosed();
}

TEST_F(ZPIActiveChannelTest, ClosedItPassesAReset) {
  makeClosed();
  expectResetForwarded();
}

TEST_F(ZPIActiveChannelTest, ClosedItCannotBeClosedAgain) {
  makeClosed();
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelTest, ClosedItReopensWithANewQueueAndThread) {
  makeRunning();
  _line->deliver("of the last time");
  ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
  ASSERT_TRUE(close());
  EXPECT_TRUE(_channel->reset(nullptr));
  ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kNow, nullptr)), "");
  expectDelivers("new");
}

TEST_F(ZPIActiveChannelTest, ItOpensAndClosesManyTimes) {
  makeNeverOpened();
  for (int round = 0; round < 50; ++round) {
    ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
    expectDelivers("round");
    ASSERT_TRUE(close());
  }
  EXPECT_EQ(_line->count("close"), 50U);
}

// --- Over an open channel

TEST_F(ZPIActiveChannelTest, OverAnOpenLineItRunsAtOnce) {
  _line = WaitingChannel::makeOpen();
  _channel = ZPIActiveChannel::initWithChannel(_line, true);
  EXPECT_TRUE(_channel->isOpened());
  EXPECT_EQ(_line->count("open"), 0U);
  expectOpenRefused();
  expectResetRefused();
  expectDelivers("at once");
  EXPECT_TRUE(close());
  EXPECT_FALSE(_line->isOpened());
  expectOpens();
}

TEST_F(ZPIActiveChannelTest, OpenedOnlyBelowItIsClosed) {
  makeNeverOpened();
  ASSERT_TRUE(_line->openWithTimeout(1.0, nullptr));
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_EQ(_channel->readWithTimeout(0.0, nullptr), nullptr);
  EXPECT_TRUE(_line->isOpened());
}

// --- The null form

TEST_F(ZPIActiveChannelTest, TheNullFormRejectsReadsAndWritesInEveryState) {
  makeNeverOpened(false);
  expectTalkRefusedAsNull();
  makeFailed(deviceError(), false);
  expectTalkRefusedAsNull();
  makeClosed(false);
  expectTalkRefusedAsNull();
  makeRunning(false);
  expectTalkRefusedAsNull();
}

TEST_F(ZPIActiveChannelTest, TheNullFormReadsBelowToo) {
  makeRunning(false);
  expectReadsInSlices();
  expectDelivers("dropped", false);
}

TEST_F(ZPIActiveChannelTest, TheNullFormOpensClosesAndResetsLikeTheOther) {
  makeNeverOpened(false);
  EXPECT_FALSE(_channel->isOpened());
  expectResetForwarded();
  expectCloseRefused();
  EXPECT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_TRUE(_channel->isOpened());
  expectOpenRefused();
  expectResetRefused();
  EXPECT_TRUE(close());
  EXPECT_FALSE(_line->isOpened());
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelTest, TheNullFormFailsLikeTheOther) {
  makeFailed(deviceError(), false);
  EXPECT_FALSE(_channel->isOpened());
  expectCloseRepeats(*deviceError());
  EXPECT_TRUE(_channel->openWithTimeout(1.0, nullptr));
}

TEST_F(ZPIActiveChannelTest, TheNullFormRunsAtOnceOverAnOpenLine) {
  _line = WaitingChannel::makeOpen();
  _channel = ZPIActiveChannel::initWithChannel(_line, false);
  EXPECT_TRUE(_channel->isOpened());
  expectOpenRefused();
  expectDelivers("dropped", false);
}

// --- Factories

TEST(CreateActiveChannelTest, CreatesTheFormThatReads) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  const auto line = WaitingChannel::make();
  const ZPKDataChannelPtr channel = createActiveChannel(line, &error);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(line->count("open"), 0U);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  EXPECT_EQ(bytesOf(channel->readWithTimeout(kNow)), "");
  EXPECT_TRUE(channel->close());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(CreateActiveNullChannelTest, CreatesTheFormThatOnlyDrains) {
  ZPKErrorPtr error = olderError();
  const auto line = WaitingChannel::make();
  const ZPKDataChannelPtr channel = createActiveNullChannel(line, &error);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(error, olderError());
  const LogCapture log;
  EXPECT_EQ(channel->readWithTimeout(kNow, &error), nullptr);
  EXPECT_EQ(error->code(), 6);
}

}  // namespace
