#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Channel/ZPIAggregatingChannel.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/ScriptedChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;

TEST(ZPIAggregatingChannelTest, WithAnAggregatorReadsReturnItsUnits) {
  auto below = ScriptedChannel::make();
  below->addRead("one;two;");
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  const ZPKDataChannelPtr channel = ZPIAggregatingChannel(below, aggregator);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(bytesOf(channel->readWithTimeout(1.0, nullptr)), "one;");
  EXPECT_EQ(bytesOf(channel->readWithTimeout(1.0, nullptr)), "two;");
}

TEST(ZPIAggregatingChannelTest, WithoutAnAggregatorReadsAreNotSplit) {
  auto below = ScriptedChannel::make();
  below->addRead("one;two;");
  const ZPKDataChannelPtr channel = ZPIAggregatingChannel(below, nullptr);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(bytesOf(channel->readWithTimeout(1.0, nullptr)), "one;two;");
}

TEST(ZPIAggregatingChannelTest, WithoutAnAggregatorResetIsPassedDownAndFails) {
  auto below = ScriptedChannel::make();
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(ZPIAggregatingChannel(below, nullptr)->reset(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(below->calls(), ElementsAre("reset"));
}

}  // namespace
