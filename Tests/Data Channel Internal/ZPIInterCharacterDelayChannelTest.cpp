#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <future>

#include "Data Channel Internal/ZPIInterCharacterDelayChannel.h"
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

// No test here waits: the pauses are counted, not slept.
class ZPIInterCharacterDelayChannelTest : public testing::Test {
 protected:
  ZPIInterCharacterDelayChannelTest() { calls.answer("usleep", 0, 0, 0, SIZE_MAX); }

  ZPKDataChannelPtr delaying(uint32_t microseconds) const {
    return ZPIInterCharacterDelayChannel::initWithChannel(below, microseconds);
  }
  std::vector<std::string> pauses() const { return calls.texts({"usleep"}); }

  SystemCalls calls;
  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
};

TEST_F(ZPIInterCharacterDelayChannelTest, ThreeBytesAreThreeWritesAndThreePauses) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(delaying(1500)->write(dataOf("abc"), &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->writes(), ElementsAre("a", "b", "c"));
  EXPECT_THAT(pauses(), ElementsAre("usleep 1500", "usleep 1500", "usleep 1500"));
}

TEST_F(ZPIInterCharacterDelayChannelTest, ADelayOfZeroStillWritesByteByByte) {
  EXPECT_TRUE(delaying(0)->write(dataOf("ab"), nullptr));
  EXPECT_THAT(below->writes(), ElementsAre("a", "b"));
  EXPECT_THAT(pauses(), ElementsAre("usleep 0", "usleep 0"));
}

TEST_F(ZPIInterCharacterDelayChannelTest, TheLargestDelayReachesTheSystem) {
  EXPECT_TRUE(delaying(UINT32_MAX)->write(dataOf("a"), nullptr));
  EXPECT_THAT(pauses(), ElementsAre("usleep 4294967295"));
}

TEST_F(ZPIInterCharacterDelayChannelTest, NothingToWriteSucceedsWithoutAPauseEvenWhenClosed) {
  below->setOpened(false);
  below->setWriteResult(false, errorWithCode(2));
  for (const ZPKDataPtr& nothing : {ZPKDataPtr(), ZPKData::data()}) {
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(delaying(1000)->write(nothing, &error));
    EXPECT_EQ(error, olderError());
  }
  EXPECT_THAT(below->calls(), ElementsAre());
  EXPECT_THAT(pauses(), ElementsAre());
}

TEST_F(ZPIInterCharacterDelayChannelTest, AClosedChannelFailsAtTheFirstByte) {
  below->setOpened(false);
  below->setWriteResult(false, errorWithCode(2));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(delaying(1000)->write(dataOf("abc"), &error));
  EXPECT_EQ(error->code(), 2);
  EXPECT_THAT(below->writes(), ElementsAre("a"));
  EXPECT_THAT(pauses(), ElementsAre("usleep 1000"));
  EXPECT_FALSE(delaying(1000)->write(dataOf("abc"), nullptr));
}

TEST_F(ZPIInterCharacterDelayChannelTest, EveryByteValuePasses) {
  std::string all;
  for (int value = 0; value < 256; ++value) all.push_back(static_cast<char>(value));
  EXPECT_TRUE(delaying(0)->write(dataOf(all), nullptr));
  std::string written;
  for (const auto& write : below->writes()) written += write.value();
  EXPECT_EQ(written, all);
  EXPECT_EQ(below->writes().size(), 256U);
}

TEST_F(ZPIInterCharacterDelayChannelTest, ReadsPassWithoutAPause) {
  const ZPKDataPtr data = dataOf("abc");
  below->addRead(data);
  EXPECT_EQ(delaying(1000)->readWithTimeout(2.5, nullptr), data);
  EXPECT_THAT(below->readTimeouts(), ElementsAre(2.5));
  EXPECT_THAT(pauses(), ElementsAre());
}

// A caller may truncate its buffer while it is being sent.
TEST(ZPIInterCharacterDelayChannelLengthTest, TheLengthIsReadAgainBeforeEachByte) {
  const auto below = ScriptedChannel::make();
  const ZPKMutableDataPtr data = chunkOf("abcdef");
  SystemCalls calls;
  calls.before(
      "usleep", [&] { data->setLength(3); }, 1);
  EXPECT_TRUE(ZPIInterCharacterDelayChannel::initWithChannel(below, 0)->write(data, nullptr));
  EXPECT_THAT(below->writes(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(calls.count("usleep"), 3U);
}

// Over a real socket: there is a pause before each byte, including the first.
class DelayOverASocketTest : public testing::Test {
 protected:
  ~DelayOverASocketTest() override { transport->close(); }

  SocketPair pair;
  const ZPKDataChannelPtr transport = createActiveTCPChannelWithSocket(pair.takeOurs());
  const ZPKDataChannelPtr channel = ZPIInterCharacterDelayChannel::initWithChannel(transport, 700);
};

TEST_F(DelayOverASocketTest, EachByteFollowsItsPause) {
  SystemCalls calls;
  calls.answer("usleep", 0, 0, 0, SIZE_MAX);
  EXPECT_TRUE(channel->write(dataOf("ab"), nullptr));
  EXPECT_THAT(calls.texts({"usleep", "send", "write"}),
              ElementsAre("usleep 700", "send", "usleep 700", "send"));
  EXPECT_EQ(pair.receive(), "ab");
}

TEST_F(DelayOverASocketTest, AFailedByteEndsTheWrite) {
  LogCapture log;
  SystemCalls calls;
  calls.answer("usleep", 0, 0, 0, SIZE_MAX);
  calls.fail("send", EPIPE, 1);
  ZPKErrorPtr error;
  EXPECT_FALSE(channel->write(dataOf("abc"), &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(calls.count("usleep"), 2U);
  EXPECT_EQ(pair.receive(), "a");
  EXPECT_TRUE(channel->isOpened());
}

TEST_F(DelayOverASocketTest, EachByteIsSentADelayAfterTheLast) {
  TestClock clock;
  std::future<bool> written =
      std::async(std::launch::async, [this] { return channel->write(dataOf("ab"), nullptr); });
  ASSERT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  EXPECT_EQ(pair.receive(), "");
  clock.advance(std::chrono::microseconds(700));
  ASSERT_TRUE(waitUntilReadable(pair.peers));
  EXPECT_EQ(pair.receive(), "a");
  ASSERT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  clock.advance(std::chrono::microseconds(700));
  ASSERT_EQ(written.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(written.get());
  EXPECT_EQ(pair.receive(), "b");
}

TEST_F(DelayOverASocketTest, WithRealPausesTheBytesArrive) {
  EXPECT_TRUE(channel->write(dataOf("abc"), nullptr));
  EXPECT_EQ(pair.receive(), "abc");
}

}  // namespace
