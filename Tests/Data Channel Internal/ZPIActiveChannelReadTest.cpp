// What a read of an active channel returns, and when.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <string>
#include <string_view>

#include "Support/ActiveChannelFixture.h"
#include "Support/ThreadCalls.h"
#include "Support/Timeouts.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKReportFailure.h"

using namespace support;

namespace {

using testing::IsEmpty;

class ZPIActiveChannelReadTest : public ActiveChannelFixture {};

// --- Reading

TEST_F(ZPIActiveChannelReadTest, NowOnAnEmptyQueueReturnsEmptyDataAtOnce) {
  makeRunning();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kNow, &error)), "");
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(-0.0, &error)), "");
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPIActiveChannelReadTest, NowReturnsTheQueuedBytes) {
  makeRunning();
  _line->deliver("queued");
  ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kNow, &error)), "queued");
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kNow, &error)), "");
}

TEST_F(ZPIActiveChannelReadTest, ATimeoutReturnsEmptyDataWithoutFailure) {
  makeRunning();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  {
    const SkippedWaits skipped(_clock);
    EXPECT_EQ(bytesOf(_channel->readWithTimeout(2.5, &error)), "");
  }
  EXPECT_GE(_clock.passed(), std::chrono::milliseconds(2500));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(_channel->isOpened());
}

TEST_F(ZPIActiveChannelReadTest, AReadReturnsAsSoonAsThereIsAnyByte) {
  for (const double timeout : {kForever, kLong, 1e300, std::numeric_limits<double>::infinity()}) {
    makeRunning();
    ZPKErrorPtr error = olderError();
    std::future<ZPKDataPtr> read = readElsewhere(timeout, &error);
    _line->deliver("x");
    ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready) << timeout;
    EXPECT_EQ(bytesOf(read.get()), "x") << timeout;
    EXPECT_EQ(error, olderError());
    ASSERT_TRUE(close());
  }
}

TEST_F(ZPIActiveChannelReadTest, BytesOfSeveralReadsBelowAreReturnedInOnePiece) {
  makeRunning();
  _line->deliver("one ");
  _line->deliver("two ");
  _line->deliver("");
  _line->deliver(std::string_view("th\0ree", 6));
  ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kLong, nullptr)), std::string("one two th\0ree", 14));
}

TEST_F(ZPIActiveChannelReadTest, UnreadBytesAreKeptInFull) {
  makeRunning();
  std::string all;
  for (int index = 0; index < 200; ++index) {
    all += std::string(10000, static_cast<char>('a' + index % 26));
    _line->deliver(std::string_view(all).substr(all.size() - 10000));
  }
  ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
  const ZPKDataPtr data = _channel->readWithTimeout(kNow, nullptr);
  ASSERT_NE(data, nullptr);
  EXPECT_TRUE(data->view() == all);
}

TEST_F(ZPIActiveChannelReadTest, TheBytesCanBeEditedAboveWithoutACopy) {
  makeRunning();
  _line->deliver("bytes");
  ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
  ZPKDataPtr data = _channel->readWithTimeout(kLong, nullptr);
  const uint8_t* const bytes = data->bytes();
  const ZPKMutableDataPtr edited = ZPKMutableData::mutableCopyGivingUp(std::move(data));
  EXPECT_EQ(edited->bytes(), bytes);
  edited->append(" and more", 9);
  EXPECT_EQ(edited->view(), "bytes and more");
}

TEST_F(ZPIActiveChannelReadTest, ABadTimeoutIsRejectedAndTheChannelWorksOn) {
  makeRunning();
  for (const double timeout : {-0.5, -1.0000001, -2.0, -1e300, std::nan("")}) {
    expectReadRefused(timeout, 3, "time out has an invalid value");
  }
  EXPECT_TRUE(_channel->isOpened());
  expectDelivers("still here");
}

TEST_F(ZPIActiveChannelReadTest, ACleanCloseEndsAnEndlessReadWithoutAnError) {
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

TEST_F(ZPIActiveChannelReadTest, ACleanCloseEndsATimedReadWithoutAnError) {
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

TEST_F(ZPIActiveChannelReadTest, AFailedWaitIsCode5) {
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

TEST_F(ZPIActiveChannelReadTest, BytesAtTheInstantOfATimeoutStayQueued) {
  makeRunning();
  {
    const ReplacedWaits wait([&] {
      _line->deliver("late");
      EXPECT_TRUE(_line->waitUntilAllIsPassedOn());
      return ETIMEDOUT;
    });
    EXPECT_EQ(bytesOf(_channel->readWithTimeout(kLong, nullptr)), "");
  }
  EXPECT_EQ(bytesOf(_channel->readWithTimeout(kNow, nullptr)), "late");
}

}  // namespace
