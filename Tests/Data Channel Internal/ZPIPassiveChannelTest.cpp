#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Channel Internal/ZPIPassiveChannel.h"
#include "Support/ErrorExpectations.h"
#include "Support/ScriptedChannel.h"

namespace {

TEST(ZPIPassiveChannelTest, AClosedChannelAtTheStartFailsWithCode2) {
  LogCapture log;
  auto below = ScriptedChannel::make();
  below->setOpened(false);
  const ZPKDataChannelPtr channel = ZPIPassiveChannel::initWithChannel(below);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  expectFailure(error, log,
                {"zephal-communication", 2, "Cannot communicate with closed device",
                 "-[ZPIPassiveChannel readWithTimeout:error:]", "ZPIPassiveChannel.cpp"});
}

TEST(ZPIPassiveChannelTest, NowReadsBelowExactlyOnce) {
  auto below = ScriptedChannel::make();
  const ZPKDataChannelPtr channel = ZPIPassiveChannel::initWithChannel(below);
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->readTimeouts(), testing::ElementsAre(0.0));
}

}  // namespace
