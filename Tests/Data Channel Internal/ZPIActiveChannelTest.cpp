#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <string>
#include <thread>

#include "Data Channel Internal/ZPIActiveChannel.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/TestClock.h"
#include "Support/ThreadCalls.h"
#include "Support/WaitingChannel.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKReportFailure.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr double kNow = 0.0;
constexpr double kForever = -1.0;
constexpr double kLong = 30.0;
constexpr double kSlice = 0.03333333333333333;

constexpr const char* kOpenSite = "-[ZPIActiveChannel openWithTimeout:error:]";
constexpr const char* kCloseSite = "-[ZPIActiveChannel close:]";
constexpr const char* kResetSite = "-[ZPIActiveChannel reset:]";
constexpr const char* kReadSite = "-[ZPIActiveChannel readWithTimeout:error:]";
constexpr const char* kWriteSite = "-[ZPIActiveChannel write:error:]";

ZPKErrorPtr deviceError() {
  static const ZPKErrorPtr error =
      ZPKError::init("zephalbench.zephal-communication", 5,
                     {{std::string(ZPKErrorDescriptionKey), "Read failed with error Gone (5)"},
                      {std::string(ZPKErrorLocationKey), "where it happened"}});
  return error;
}

// What a read gave: text, or null.
std::optional<std::string> textOf(const ZPKDataPtr& data) {
  if (data == nullptr) return std::nullopt;
  return std::string(data->view());
}

// A channel over a line, brought to one of the states; closed at the end if it is open.
class ZPIActiveChannelTest : public testing::Test {
 protected:
  ~ZPIActiveChannelTest() override {
    if (_channel != nullptr && _channel->isOpened()) close();
  }

  void makeNeverOpened(bool bufferData = true) {
    _line = WaitingChannel::make();
    _channel = ZPIActiveChannel::initWithChannel(_line, bufferData);
  }

  void makeRunning(bool bufferData = true) {
    makeNeverOpened(bufferData);
    ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  }

  void makeFailed(const ZPKErrorPtr& error = deviceError(), bool bufferData = true) {
    makeRunning(bufferData);
    _line->fail(error);
    ASSERT_TRUE(waitForFailure(error));
  }

  void makeClosed(bool bufferData = true) {
    makeRunning(bufferData);
    ASSERT_TRUE(close());
  }

  // Does not wait for the end of the slice that the thread is in.
  bool close(ZPKErrorPtr* error = nullptr) {
    const SkippedWaits skipped(_clock);
    return _channel->close(error);
  }

  // The error is stored a moment after the channel is seen to be closed.
  bool waitForFailure(const ZPKErrorPtr& error) {
    if (!waitFor([&] { return !_channel->isOpened(); })) return false;
    if (error == nullptr) return true;
    const LogCapture log;
    return waitFor([&] {
      ZPKErrorPtr found;
      _channel->close(&found);
      return found != nullptr && found->description() == error->description();
    });
  }

  std::future<ZPKDataPtr> readElsewhere(double timeout, ZPKErrorPtr* error) {
    return std::async(std::launch::async, [channel = _channel, timeout, error] {
      return channel->readWithTimeout(timeout, error);
    });
  }

  // Returns once the read waits.
  std::future<ZPKDataPtr> readForeverElsewhere(ZPKErrorPtr* error) {
    const size_t waits = endlessWaits();
    std::future<ZPKDataPtr> read = readElsewhere(kForever, error);
    EXPECT_TRUE(waitFor([&] { return endlessWaits() > waits; }));
    return read;
  }

  // Expects a failure of ours, with a slot that holds an older error and with none.
  template <class Action>
  static void expectRefused(Action action, int code, const char* text, const char* function) {
    {
      const LogCapture log;
      ZPKErrorPtr error = olderError();
      EXPECT_FALSE(static_cast<bool>(action(&error)));
      expectFailure(error, log,
                    {"zephal-communication", code, text, function, "ZPIActiveChannel.cpp"});
    }
    const LogCapture log;
    EXPECT_FALSE(static_cast<bool>(action(nullptr)));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, text}));
  }

  void expectReadRefused(double timeout, int code, const char* text) {
    expectRefused([&](ZPKErrorPtr* error) { return _channel->readWithTimeout(timeout, error); },
                  code, text, kReadSite);
  }
  void expectWriteRefused(int code, const char* text) {
    const ZPKDataPtr data = ZPKData::dataWithString("x");
    const size_t writes = _line->writes().size();
    expectRefused([&](ZPKErrorPtr* error) { return _channel->write(data, error); }, code, text,
                  kWriteSite);
    EXPECT_EQ(_line->writes().size(), writes);
  }
  void expectTalkRefusedAsClosed() {
    expectReadRefused(kNow, 2, "Cannot communicate with closed devices");
    expectReadRefused(-0.5, 2, "Cannot communicate with closed devices");
    expectWriteRefused(2, "Cannot communicate with closed devices");
  }
  void expectTalkRefusedAsNull() {
    expectReadRefused(kNow, 6, "active null stub does not support read");
    expectReadRefused(-0.5, 6, "active null stub does not support read");
    expectWriteRefused(6, "active null stub does not support write");
  }
  void expectCloseRefused() {
    const size_t closes = _line->count("close");
    expectRefused([&](ZPKErrorPtr* error) { return _channel->close(error); }, 2,
                  "Device Already Closed", kCloseSite);
    EXPECT_EQ(_line->count("close"), closes);
  }
  void expectOpenRefused() {
    const size_t opens = _line->count("open");
    expectRefused([&](ZPKErrorPtr* error) { return _channel->openWithTimeout(1.0, error); }, 1,
                  "Device Already Opened", kOpenSite);
    EXPECT_EQ(_line->count("open"), opens);
    EXPECT_TRUE(_channel->isOpened());
  }
  void expectResetRefused() {
    const size_t resets = _line->count("reset");
    expectRefused([&](ZPKErrorPtr* error) { return _channel->reset(error); }, 1,
                  "Reset not supported while channel is open", kResetSite);
    EXPECT_EQ(_line->count("reset"), resets);
    EXPECT_TRUE(_channel->isOpened());
  }

  void expectResetForwarded() {
    const LogCapture log;
    const size_t resets = _line->count("reset");
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(_channel->reset(&error));
    EXPECT_EQ(error, olderError());
    _line->setResetResult(false, deviceError());
    EXPECT_FALSE(_channel->reset(&error));
    EXPECT_EQ(error, deviceError());
    EXPECT_EQ(_line->count("reset"), resets + 2);
    EXPECT_THAT(log.lines(), IsEmpty());
    _line->setResetResult(true);
  }

  // Each time that the clock moves by a slice, one more.
  void expectReadsInSlices() {
    for (size_t reads = 1; reads < 4; ++reads) {
      ASSERT_TRUE(waitFor([&] { return _line->reads() == reads && _line->isBeingRead(); }));
      _clock.advance(std::chrono::nanoseconds(33333334));
    }
    ASSERT_TRUE(waitFor([&] { return _line->reads() == 4; }));
    EXPECT_THAT(_line->readTimeouts(), ElementsAre(kSlice));
  }

  void expectOpens() {
    const LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(_channel->openWithTimeout(2.5, &error));
    EXPECT_EQ(error, olderError());
    EXPECT_EQ(_line->openTimeouts().back(), 2.5);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_TRUE(_channel->isOpened());
    expectDelivers("after the open");
  }

  // Bytes from below reach a read, or, in the null form, the thread.
  void expectDelivers(const char* text, bool bufferData = true) {
    _line->deliver(text);
    ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
    if (bufferData) {
      EXPECT_EQ(textOf(_channel->readWithTimeout(kLong, nullptr)), text);
    }
  }

  // The stored error under code 2, unlogged, as often as one asks; the line is left alone.
  void expectCloseRepeats(const ZPKError& stored) {
    const LogCapture log;
    const size_t closes = _line->count("close");
    for (int round = 0; round < 3; ++round) {
      ZPKErrorPtr error = olderError();
      EXPECT_FALSE(_channel->close(&error));
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), stored.domain());
      EXPECT_EQ(error->code(), 2);
      EXPECT_EQ(error->userInfo(), stored.userInfo());
      EXPECT_FALSE(_channel->close(nullptr));
    }
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(_line->count("close"), closes);
  }

  TestClock _clock;
  std::shared_ptr<WaitingChannel> _line;
  std::shared_ptr<ZPIActiveChannel> _channel;
};

// --- Never opened

TEST_F(ZPIActiveChannelTest, NeverOpenedItIsClosed) {
  makeNeverOpened();
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_EQ(_line->reads(), 0U);
}

TEST_F(ZPIActiveChannelTest, NeverOpenedItRefusesToReadAndToWrite) {
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

TEST_F(ZPIActiveChannelTest, AFailedOpenBelowWithoutAnErrorLeavesTheSlotAlone) {
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

TEST_F(ZPIActiveChannelTest, RunningItReadsBelowInSlicesWithoutBeingAsked) {
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

TEST_F(ZPIActiveChannelTest, RunningItRefusesAResetAndGoesOn) {
  makeRunning();
  expectResetRefused();
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelTest, RunningItRefusesASecondOpenAndGoesOn) {
  makeRunning();
  expectOpenRefused();
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelTest, RunningItClosesItsThreadAndThenBelow) {
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
  // A reader that was still there when the line closed would have found it closed and failed.
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

// --- Failed

TEST_F(ZPIActiveChannelTest, FailedItIsClosedAndReadsNoMore) {
  makeFailed();
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_FALSE(_line->isBeingRead());
}

TEST_F(ZPIActiveChannelTest, FailedItRefusesToReadAndToWrite) {
  makeFailed();
  expectTalkRefusedAsClosed();
}

TEST_F(ZPIActiveChannelTest, FailedItPassesAReset) {
  makeFailed();
  expectResetForwarded();
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelTest, FailedItsCloseRepeatsTheErrorUnderCode2AndLeavesTheLineAlone) {
  makeFailed();
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelTest, FailedWithoutAnErrorItCannotBeClosed) {
  makeFailed(nullptr);
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelTest, FailedItOpensAfreshAndForgetsTheError) {
  makeFailed();
  expectOpens();
  EXPECT_TRUE(close());
  expectCloseRefused();
}

TEST_F(ZPIActiveChannelTest, FailedItKeepsTheErrorWhenTheNextOpenFails) {
  makeFailed();
  _line->setOpenResult(false);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelTest, ALineThatFailsAndStaysOpenLeavesNoThreadAfterTheNextOpen) {
  makeRunning();
  _line->fail(deviceError(), false);
  ASSERT_TRUE(waitForFailure(deviceError()));
  ASSERT_TRUE(_line->isOpened());
  const size_t reads = _line->reads();
  _line->setOpenResult(true, olderError());  // what it refuses a second open with
  ZPKErrorPtr error;
  EXPECT_TRUE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(_channel->isOpened());
  expectTalkRefusedAsClosed();
  EXPECT_EQ(_line->reads(), reads);
  expectCloseRepeats(*deviceError());
}

TEST_F(ZPIActiveChannelTest, AFailureReachesTheWaitingReadUnchanged) {
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

TEST_F(ZPIActiveChannelTest, AFailureWakesTheReadThatWaitsForever) {
  makeRunning();
  ZPKErrorPtr error = olderError();
  std::future<ZPKDataPtr> read = readForeverElsewhere(&error);
  _line->fail(deviceError());
  ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(read.get(), nullptr);
  // It is stored a moment after the read is woken, so the read may miss it.
  EXPECT_TRUE(error == deviceError() || error == nullptr);
}

TEST_F(ZPIActiveChannelTest, BytesThatNobodyReadAreLostWhenTheLineFails) {
  makeRunning();
  _line->deliver("lost");
  ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
  _line->fail(deviceError());
  ASSERT_TRUE(waitForFailure(deviceError()));
  expectReadRefused(kNow, 2, "Cannot communicate with closed devices");
  ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(textOf(_channel->readWithTimeout(kNow, nullptr)), "");
}

TEST_F(ZPIActiveChannelTest, BytesThatAReadHoldsWhenTheLineFailsAreDropped) {
  makeRunning();
  // Bytes, then the failure, while the read waits: it wakes with bytes from a queue that is closed.
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

TEST_F(ZPIActiveChannelTest, AFailureStopsAReadThatHasNoSlot) {
  makeRunning();
  std::future<ZPKDataPtr> read = readForeverElsewhere(nullptr);
  _line->fail(deviceError());
  ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(read.get(), nullptr);
}

// --- Closed

TEST_F(ZPIActiveChannelTest, ClosedItIsClosed) {
  makeClosed();
  EXPECT_FALSE(_channel->isOpened());
}

TEST_F(ZPIActiveChannelTest, ClosedItRefusesToReadAndToWrite) {
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

TEST_F(ZPIActiveChannelTest, ClosedItOpensWithANewQueueAndANewThread) {
  makeRunning();
  _line->deliver("of the last time");
  ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
  ASSERT_TRUE(close());
  EXPECT_TRUE(_channel->reset(nullptr));
  ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(textOf(_channel->readWithTimeout(kNow, nullptr)), "");
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

// --- Reading

TEST_F(ZPIActiveChannelTest, NowOnAnEmptyQueueGivesEmptyDataAtOnce) {
  makeRunning();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(textOf(_channel->readWithTimeout(kNow, &error)), "");
  EXPECT_EQ(textOf(_channel->readWithTimeout(-0.0, &error)), "");
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPIActiveChannelTest, NowTakesWhatIsQueued) {
  makeRunning();
  _line->deliver("queued");
  ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(textOf(_channel->readWithTimeout(kNow, &error)), "queued");
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(textOf(_channel->readWithTimeout(kNow, &error)), "");
}

TEST_F(ZPIActiveChannelTest, ATimeoutGivesEmptyDataAndIsNoFailure) {
  makeRunning();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  {
    const SkippedWaits skipped(_clock);
    EXPECT_EQ(textOf(_channel->readWithTimeout(2.5, &error)), "");
  }
  EXPECT_GE(_clock.passed(), std::chrono::milliseconds(2500));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(_channel->isOpened());
}

TEST_F(ZPIActiveChannelTest, AReadReturnsAsSoonAsThereIsAnyByte) {
  for (const double timeout : {kForever, kLong, 1e300, std::numeric_limits<double>::infinity()}) {
    makeRunning();
    ZPKErrorPtr error = olderError();
    std::future<ZPKDataPtr> read = readElsewhere(timeout, &error);
    _line->deliver("x");
    ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready) << timeout;
    EXPECT_EQ(textOf(read.get()), "x") << timeout;
    EXPECT_EQ(error, olderError());
    ASSERT_TRUE(close());
  }
}

TEST_F(ZPIActiveChannelTest, BytesOfSeveralReadsBelowComeAsOnePiece) {
  makeRunning();
  _line->deliver("one ");
  _line->deliver("two ");
  _line->deliver("");
  _line->deliver(std::string_view("th\0ree", 6));
  ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
  EXPECT_EQ(textOf(_channel->readWithTimeout(kLong, nullptr)), std::string("one two th\0ree", 14));
}

TEST_F(ZPIActiveChannelTest, WhatNobodyReadsIsKeptInFull) {
  makeRunning();
  std::string all;
  for (int index = 0; index < 200; ++index) {
    all += std::string(10000, static_cast<char>('a' + index % 26));
    _line->deliver(std::string_view(all).substr(all.size() - 10000));
  }
  ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
  const ZPKDataPtr data = _channel->readWithTimeout(kNow, nullptr);
  ASSERT_NE(data, nullptr);
  EXPECT_TRUE(data->view() == all);
}

TEST_F(ZPIActiveChannelTest, TheBytesCanBeEditedAboveWithoutACopy) {
  makeRunning();
  _line->deliver("bytes");
  ASSERT_TRUE(_line->waitUntilAllIsHandedOn());
  ZPKDataPtr data = _channel->readWithTimeout(kLong, nullptr);
  const uint8_t* const bytes = data->bytes();
  const ZPKMutableDataPtr edited = ZPKMutableData::mutableCopyGivingUp(std::move(data));
  EXPECT_EQ(edited->bytes(), bytes);
  edited->append(" and more", 9);
  EXPECT_EQ(edited->view(), "bytes and more");
}

TEST_F(ZPIActiveChannelTest, ABadTimeoutIsRefusedAndTheChannelGoesOn) {
  makeRunning();
  for (const double timeout : {-0.5, -1.0000001, -2.0, -1e300, std::nan("")}) {
    expectReadRefused(timeout, 3, "time out has an invalid value");
  }
  EXPECT_TRUE(_channel->isOpened());
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelTest, ACleanCloseWakesTheReadThatWaitsForeverWithNullAndNoError) {
  makeRunning();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  std::future<ZPKDataPtr> read = readForeverElsewhere(&error);
  EXPECT_TRUE(close());
  ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(read.get(), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPIActiveChannelTest, ACleanCloseStopsAReadWithTimeLeftWithNullAndNoError) {
  for (const int waitResult : {0, ETIMEDOUT}) {
    makeRunning();
    const ReplacedWaits wait([&] {
      EXPECT_TRUE(close());
      return waitResult;
    });
    const LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(_channel->readWithTimeout(kLong, &error), nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

TEST_F(ZPIActiveChannelTest, AWaitThatTheSystemRefusesIsCode5) {
  makeRunning();
  const std::string text =
      "read failed with error " + ZPIErrorText(EPERM) + " (" + std::to_string(EPERM) + ")";
  {
    const ReplacedWaits wait([] { return EPERM; });
    expectReadRefused(kLong, 5, text.c_str());
  }
  EXPECT_TRUE(_channel->isOpened());
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelTest, BytesThatComeAsTheTimeEndsAreForTheNextRead) {
  makeRunning();
  {
    const ReplacedWaits wait([&] {
      _line->deliver("late");
      EXPECT_TRUE(_line->waitUntilAllIsHandedOn());
      return ETIMEDOUT;
    });
    EXPECT_EQ(textOf(_channel->readWithTimeout(kLong, nullptr)), "");
  }
  EXPECT_EQ(textOf(_channel->readWithTimeout(kNow, nullptr)), "late");
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

// --- The null form

TEST_F(ZPIActiveChannelTest, TheNullFormRefusesToTalkInEveryState) {
  makeNeverOpened(false);
  expectTalkRefusedAsNull();
  makeFailed(deviceError(), false);
  expectTalkRefusedAsNull();
  makeClosed(false);
  expectTalkRefusedAsNull();
  makeRunning(false);
  expectTalkRefusedAsNull();
}

TEST_F(ZPIActiveChannelTest, TheNullFormReadsBelowAllTheSame) {
  makeRunning(false);
  expectReadsInSlices();
  expectDelivers("dropped", false);
}

TEST_F(ZPIActiveChannelTest, TheNullFormOpensClosesAndResetsAsTheOther) {
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

TEST_F(ZPIActiveChannelTest, TheNullFormFailsAsTheOther) {
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

TEST(CreateActiveChannelTest, MakesTheFormThatReads) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  const auto line = WaitingChannel::make();
  const ZPKDataChannelPtr channel = createActiveChannel(line, &error);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(line->count("open"), 0U);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  EXPECT_EQ(textOf(channel->readWithTimeout(kNow)), "");
  EXPECT_TRUE(channel->close());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(CreateActiveNullChannelTest, MakesTheFormThatOnlyDrains) {
  ZPKErrorPtr error = olderError();
  const auto line = WaitingChannel::make();
  const ZPKDataChannelPtr channel = createActiveNullChannel(line, &error);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(error, olderError());
  const LogCapture log;
  EXPECT_EQ(channel->readWithTimeout(kNow, &error), nullptr);
  EXPECT_EQ(error->code(), 6);
}

// --- Without a thread

const ExpectedFailure kNoThread{"zephal-communication", 5, "Failed to start thread",
                                "detach_read_loop__unsafe", "ZPIActiveChannel.cpp"};

TEST_F(ZPIActiveChannelTest, WithoutAThreadItFailsToOpenAndClosesBelow) {
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

TEST_F(ZPIActiveChannelTest, WithoutAThreadItOpensAfreshOnceThereIsOne) {
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

TEST_F(ZPIActiveChannelTest, WithoutAThreadAnOpenLineStaysOpen) {
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
