#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel Internal/ZPIPassiveChannel.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/EventWait.h"
#include "Support/ScriptedChannel.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Support/TestClock.h"

using namespace support;

namespace {

using testing::ElementsAre;

const ExpectedFailure kClosed{"zephal-communication", 2, "Cannot communicate with closed device",
                              "-[ZPIPassiveChannel readWithTimeout:error:]",
                              "ZPIPassiveChannel.cpp"};

class ZPIPassiveChannelTest : public testing::Test {
 protected:
  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
  const ZPKDataChannelPtr channel = ZPIPassiveChannel::initWithChannel(below);
};

// --- Closed channels.

TEST_F(ZPIPassiveChannelTest, AClosedChannelAtTheStartFailsWithCode2) {
  LogCapture log;
  below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  expectFailure(error, log, kClosed);
  EXPECT_THAT(below->calls(), ElementsAre());
}

TEST_F(ZPIPassiveChannelTest, AClosedChannelWithoutASlotStillLogs) {
  LogCapture log;
  below->setOpened(false);
  EXPECT_EQ(channel->readWithTimeout(-0.5, nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, kClosed.description}));
}

TEST_F(ZPIPassiveChannelTest, ACloseBetweenSlicesGivesNullAndClearsTheSlot) {
  LogCapture log;
  below->setOnRead([this](double) {
    if (below->readTimeouts().size() == 3) below->setOpened(false);
  });
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1000.0, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(below->readTimeouts().size(), 3U);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ZPIPassiveChannelTest, WithoutASlotACloseBetweenSlicesGivesNull) {
  below->setOnRead([this](double) { below->setOpened(false); });
  EXPECT_EQ(channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr), nullptr);
}

TEST_F(ZPIPassiveChannelTest, BytesThatArriveWithTheCloseArePassedUp) {
  below->addRead("last words");
  below->setOnRead([this](double) { below->setOpened(false); });
  EXPECT_EQ(channel->readWithTimeout(1000.0, nullptr)->view(), "last words");
}

TEST_F(ZPIPassiveChannelTest, ATimeoutTakesPrecedenceOverASimultaneousClose) {
  below->setOnRead([this](double) { below->setOpened(false); });
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPIPassiveChannelTest, ACloseOnAnotherThreadEndsAReadCleanly) {
  std::thread closer([this] {
    EXPECT_TRUE(waitFor([this] { return below->readTimeouts().size() > 2; }));
    below->setOpened(false);
  });
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  closer.join();
}

// --- Slices.

TEST_F(ZPIPassiveChannelTest, NowReadsBelowExactlyOnce) {
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->readTimeouts(), ElementsAre(0.0));
}

// A channel below may keep the buffer that it passed up, and fill it later.
TEST_F(ZPIPassiveChannelTest, ATimeoutReturnsItsOwnEmptyData) {
  for (const double timeout : {ZEPHAL_COMMUNICATION_TIME_NOW, 0.001}) {
    const ZPKMutableDataPtr kept = ZPKMutableData::data();
    below->setOnRead([&](double) { below->addRead(kept); });
    const ZPKDataPtr data = channel->readWithTimeout(timeout, nullptr);
    kept->append("later", 5);
    EXPECT_NE(data, kept);
    EXPECT_EQ(data->length(), 0U);
  }
}

TEST_F(ZPIPassiveChannelTest, ForeverIsPassedDownUntilBytesArrive) {
  for (const char* bytes : {"", "", "", "abc"}) below->addRead(bytes);
  EXPECT_EQ(channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr)->view(), "abc");
  EXPECT_THAT(below->readTimeouts(), ElementsAre(-1.0, -1.0, -1.0, -1.0));
}

TEST_F(ZPIPassiveChannelTest, ASliceIsATenthOfTheTimeout) {
  for (const double timeout : {1.0, 2.5, 0.001, 3600.0}) {
    below->addRead("a");
    channel->readWithTimeout(timeout, nullptr);
  }
  EXPECT_THAT(below->readTimeouts(), ElementsAre(0.1, 0.25, 0.0001, 360.0));
}

TEST_F(ZPIPassiveChannelTest, AllSlicesOfATimeoutHaveTheSameLength) {
  for (const char* bytes : {"", "", "abc"}) below->addRead(bytes);
  channel->readWithTimeout(1000.0, nullptr);
  EXPECT_THAT(below->readTimeouts(), ElementsAre(100.0, 100.0, 100.0));
}

TEST_F(ZPIPassiveChannelTest, ATenthOfANegativeTimeoutIsPassedDown) {
  LogCapture log;
  below->addFailedRead(errorWithCode(3), false);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(-0.5, &error), nullptr);
  EXPECT_EQ(error->code(), 3);
  EXPECT_THAT(below->readTimeouts(), ElementsAre(-0.05));
  EXPECT_THAT(log.lines(), ElementsAre());
}

// Its tenth would be FOREVER below, or NOW.
TEST_F(ZPIPassiveChannelTest, ANegativeTimeoutStaysInvalidBelow) {
  constexpr double kSmallest = std::numeric_limits<double>::denorm_min();
  for (const double timeout : {-10.0, -9.99, -10.01, -kSmallest, -1e300}) {
    below->addFailedRead(errorWithCode(3), false);
    EXPECT_EQ(channel->readWithTimeout(timeout, nullptr), nullptr);
  }
  EXPECT_THAT(below->readTimeouts(), ElementsAre(-10.0, -0.999, -10.01 / 10, -kSmallest, -1e299));
}

TEST_F(ZPIPassiveChannelTest, MinusZeroIsNow) {
  EXPECT_EQ(channel->readWithTimeout(-0.0, nullptr)->length(), 0U);
  EXPECT_THAT(below->readTimeouts(), ElementsAre(0.0));
}

TEST_F(ZPIPassiveChannelTest, ANegativeTimeoutAcceptedBelowEndsAfterOneSlice) {
  const ZPKDataPtr data = channel->readWithTimeout(-5.0, nullptr);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_THAT(below->readTimeouts(), ElementsAre(-0.5));
}

TEST_F(ZPIPassiveChannelTest, ANaNTimeoutEndsAfterOneSlice) {
  const ZPKDataPtr data = channel->readWithTimeout(std::nan(""), nullptr);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  ASSERT_EQ(below->readTimeouts().size(), 1U);
  EXPECT_TRUE(std::isnan(below->readTimeouts().front()));
}

// --- Results.

TEST_F(ZPIPassiveChannelTest, TheFirstBytesArePassedUpUnchanged) {
  const ZPKDataPtr first = dataOf("a");
  below->addRead("");
  below->addRead(first);
  below->addRead("b");
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1000.0, &error), first);
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(below->readTimeouts().size(), 2U);
}

TEST_F(ZPIPassiveChannelTest, EmptyDataIsReturnedOnlyAtTheTimeout) {
  TestClock clock;
  below->setOnRead([&clock](double) { clock.advance(std::chrono::milliseconds(15)); });
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = channel->readWithTimeout(0.05, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->readTimeouts(), ElementsAre(0.005, 0.005, 0.005, 0.005));
}

TEST_F(ZPIPassiveChannelTest, TheReadEndsExactlyAtItsTimeout) {
  TestClock clock;
  below->setOnRead([&clock](double) { clock.advance(std::chrono::milliseconds(250)); });
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr)->length(), 0U);
  EXPECT_EQ(below->readTimeouts().size(), 4U);
}

// The read follows the wall clock: setting it back makes the read last longer.
TEST_F(ZPIPassiveChannelTest, SettingTheWallClockBackMakesTheReadLonger) {
  TestClock clock;
  const auto start = std::chrono::system_clock::now();
  below->setOnRead([&](double) {
    clock.advance(std::chrono::milliseconds(400));
    if (below->readTimeouts().size() == 2) clock.setWallTime(start);
  });
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr)->length(), 0U);
  EXPECT_EQ(clock.passed(), std::chrono::milliseconds(2000));
}

TEST_F(ZPIPassiveChannelTest, AFailureBelowPassesAndIsNotLoggedAgain) {
  LogCapture log;
  below->addRead("");
  below->addFailedRead(errorWithCode(5));
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1000.0, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
  below->setOpened(true);
  below->addFailedRead(errorWithCode(5));
  EXPECT_EQ(channel->readWithTimeout(1000.0, nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ZPIPassiveChannelTest, NullFromBelowWithoutErrorClearsTheSlot) {
  below->addFailedRead(nullptr);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1000.0, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

// If a channel below fills the slot of a read that does not fail, its error is dropped.
TEST_F(ZPIPassiveChannelTest, TheChannelBelowGetsASlotOfItsOwn) {
  class Chatty final : public ZPKDataChannel {
   public:
    bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
    bool close(ZPKErrorPtr*) override { return true; }
    bool reset(ZPKErrorPtr*) override { return true; }
    bool isOpened() const override { return true; }
    ZPKDataPtr readWithTimeout(double, ZPKErrorPtr* error) override {
      EXPECT_NE(error, nullptr);
      EXPECT_EQ(*error, nullptr);
      *error = errorWithCode(7);
      return ++_reads < 3 ? ZPKData::data() : dataOf("a");
    }
    bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return true; }

   private:
    int _reads = 0;
  };
  const auto chatty = ZPIPassiveChannel::initWithChannel(std::make_shared<Chatty>());
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(chatty->readWithTimeout(1000.0, &error)->view(), "a");
  EXPECT_EQ(error, olderError());
}

// There are bytes to read, so that a read that accepts the timeout does not wait forever.
TEST(ZPIPassiveChannelOverASocketTest, EveryNegativeTimeoutExceptForeverIsRejected) {
  for (const double timeout :
       {-10.0, -9.99, -10.01, -0.5, -std::numeric_limits<double>::denorm_min(),
        -std::numeric_limits<double>::infinity()}) {
    SocketPair pair;
    const ZPKDataChannelPtr transport = createActiveTCPChannelWithSocket(pair.takeOurs());
    const ZPKDataChannelPtr channel = ZPIPassiveChannel::initWithChannel(transport);
    pair.send("x");
    ZPKErrorPtr error;
    EXPECT_EQ(channel->readWithTimeout(timeout, &error), nullptr) << timeout;
    EXPECT_TRUE(error != nullptr && error->code() == 3) << timeout;
    EXPECT_EQ(channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, nullptr)->view(), "x");
    EXPECT_TRUE(transport->close());
  }
}

// Over a transport that waits: every slice is one select.
TEST(ZPIPassiveChannelOverASocketTest, ATimeoutIsTenSlicesAndThenEmptyData) {
  SocketPair pair;
  const ZPKDataChannelPtr transport = createActiveTCPChannelWithSocket(pair.takeOurs());
  const ZPKDataChannelPtr channel = ZPIPassiveChannel::initWithChannel(transport);
  TestClock clock;
  const SkippedWaits skipped(clock);
  {
    SystemCalls calls;
    const ZPKDataPtr data = channel->readWithTimeout(2.0, nullptr);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->length(), 0U);
    EXPECT_EQ(calls.texts({"select"}), std::vector<std::string>(10, "select 0.200000"));
  }
  EXPECT_EQ(clock.passed(), std::chrono::seconds(2));
  EXPECT_TRUE(transport->close());
}

TEST(ZPIPassiveChannelOverASocketTest, ARealTimeoutNeverExpiresEarly) {
  SocketPair pair;
  const ZPKDataChannelPtr transport = createActiveTCPChannelWithSocket(pair.takeOurs());
  const ZPKDataChannelPtr channel = ZPIPassiveChannel::initWithChannel(transport);
  const auto start = std::chrono::system_clock::now();
  EXPECT_EQ(channel->readWithTimeout(0.02, nullptr)->length(), 0U);
  EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_TRUE(transport->close());
}

}  // namespace
