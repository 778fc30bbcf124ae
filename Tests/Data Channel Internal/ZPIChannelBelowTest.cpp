#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Channel Internal/ZPIChannelBelow.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Bytes.h"
#include "Support/PassingChannel.h"
#include "Support/ScriptedChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;

class ZPIChannelBelowTest : public testing::Test {
 protected:
  ZPKDataChannelPtr aggregating() const {
    return createAggregatingTransformerChannel(_base, _aggregator);
  }

  const std::shared_ptr<ScriptedChannel> _base = ScriptedChannel::make();
  const ZPKMutableDataAggregatorTransformerPtr _aggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
};

TEST_F(ZPIChannelBelowTest, ItPassesOperationsToTheChannel) {
  const ZPIChannelBelow below(_base);
  EXPECT_TRUE(below->write(dataOf("a"), nullptr));
  EXPECT_TRUE((*below).reset(nullptr));
  EXPECT_THAT(_base->calls(), ElementsAre("write", "reset"));
}

TEST_F(ZPIChannelBelowTest, ItHoldsTheChannel) {
  auto channel = std::make_shared<ScriptedChannel>();
  const std::weak_ptr<ScriptedChannel> weak = channel;
  {
    const ZPIChannelBelow below(std::move(channel));
    EXPECT_FALSE(weak.expired());
  }
  EXPECT_TRUE(weak.expired());
}

TEST_F(ZPIChannelBelowTest, ItAsksTheChannelThatKnowsWhetherItIsOpen) {
  const ZPIChannelBelow below(createPassiveChannel(aggregating()));
  EXPECT_EQ(below.openSource(), _base.get());
  EXPECT_TRUE(below.isOpened());
  _base->setOpened(false);
  EXPECT_FALSE(below.isOpened());
}

TEST_F(ZPIChannelBelowTest, ACallersChannelIsAskedItself) {
  const auto callers = std::make_shared<PassingChannel>(aggregating());
  const ZPIChannelBelow below(callers);
  EXPECT_EQ(below.openSource(), callers.get());
  EXPECT_TRUE(below.isOpened());
  EXPECT_EQ(callers->questions, 1);
}

TEST_F(ZPIChannelBelowTest, ItTakesAUnitThatTheChannelHolds) {
  const ZPIChannelBelow below(aggregating());
  EXPECT_EQ(below.takeHeldUnit(), nullptr);
  _aggregator->buffer()->setContents(*dataOf("a;b"));
  EXPECT_EQ(bytesOf(below.takeHeldUnit()), "a;");
  EXPECT_EQ(below.takeHeldUnit(), nullptr);
}

TEST_F(ZPIChannelBelowTest, ACallersChannelKeepsWhatItHolds) {
  const ZPIChannelBelow below(std::make_shared<PassingChannel>(aggregating()));
  _aggregator->buffer()->setContents(*dataOf("a;b"));
  EXPECT_EQ(below.takeHeldUnit(), nullptr);
  EXPECT_EQ(_aggregator->buffer()->view(), "a;b");
}

}  // namespace
