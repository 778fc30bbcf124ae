#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZPKCommStackTest : public testing::Test {
 protected:
  LogCapture log;
};

// --- Defaults and accessors.

TEST_F(ZPKCommStackTest, ANewStackHasItsDefaults) {
  const auto stack = ZPKCommStack::init();
  EXPECT_FALSE(stack->activeChannelOnOff());
  EXPECT_TRUE(stack->timeoutIsException());
  EXPECT_EQ(stack->commChannel(), nullptr);
  EXPECT_EQ(bytesOf(stack->aggregator()->data2Find()), "> ");
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "");
  EXPECT_EQ(bytesOf(stack->appender()->dataToAppend()), "\n");
  EXPECT_FALSE(stack->readFilterTransformers().has_value());
  EXPECT_FALSE(stack->readFilterHexTransformers().has_value());
  ASSERT_NE(stack->ecidChecker(), nullptr);
  EXPECT_EQ(stack->ecidChecker()->expectedECIDString(), "");
  EXPECT_TRUE(stack->ecidChecker()->dropResponseWhenECIDSwapDetected());
  EXPECT_EQ(stack->ecidSwapInformation(), std::nullopt);
  EXPECT_EQ(stack->logFilePath(), std::nullopt);
  EXPECT_EQ(stack->preAggregatorLogFilePath(), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTest, EachStackHasTransformersOfItsOwn) {
  const auto one = ZPKCommStack::init();
  const auto other = ZPKCommStack::init();
  EXPECT_NE(one->aggregator(), other->aggregator());
  EXPECT_NE(one->appender(), other->appender());
  EXPECT_NE(one->ecidChecker(), other->ecidChecker());
}

// They take memory for all stacks together, not for each of them.
TEST_F(ZPKCommStackTest, StacksShareTheBytesThatTheyStartWith) {
  const auto stack = ZPKCommStack::init();
  const auto other = ZPKCommStack::init();
  EXPECT_EQ(stack->aggregator()->data2Find(), other->aggregator()->data2Find());
  EXPECT_EQ(stack->appender()->dataToAppend(), other->appender()->dataToAppend());
  other->setDelimiter("=> ", nullptr);
  other->setLineTerminator("\r", nullptr);
  EXPECT_EQ(stack->aggregator()->data2Find()->view(), "> ");
  EXPECT_EQ(stack->appender()->dataToAppend()->view(), "\n");
}

TEST_F(ZPKCommStackTest, EveryPlainAccessorReturnsWhatWasSet) {
  const auto stack = ZPKCommStack::init();
  const auto other = ZPKCommStack::init();
  const auto channel = ScriptedChannel::make();
  stack->setActiveChannelOnOff(true);
  EXPECT_TRUE(stack->activeChannelOnOff());
  stack->setTimeoutIsException(false);
  EXPECT_FALSE(stack->timeoutIsException());
  stack->setCommChannel(channel);
  EXPECT_EQ(stack->commChannel(), channel);
  stack->setAggregator(other->aggregator());
  EXPECT_EQ(stack->aggregator(), other->aggregator());
  stack->setAppender(other->appender());
  EXPECT_EQ(stack->appender(), other->appender());
  stack->setEcidChecker(other->ecidChecker());
  EXPECT_EQ(stack->ecidChecker(), other->ecidChecker());
  stack->setReadFilterTransformers(ZPKDataTransformerArray{other->appender()});
  EXPECT_THAT(*stack->readFilterTransformers(), ElementsAre(other->appender()));
  stack->setReadFilterHexTransformers(ZPKDataTransformerArray{});
  EXPECT_THAT(*stack->readFilterHexTransformers(), IsEmpty());
  stack->setEcidSwapInformation("");
  EXPECT_EQ(stack->ecidSwapInformation(), "");
  stack->setLogFilePath("/a");
  EXPECT_EQ(stack->logFilePath(), "/a");
  stack->setPreAggregatorLogFilePath("/b");
  EXPECT_EQ(stack->preAggregatorLogFilePath(), "/b");
}

TEST_F(ZPKCommStackTest, EveryNullableAccessorAcceptsNull) {
  const auto stack = ZPKCommStack::init();
  stack->setCommChannel(ScriptedChannel::make());
  stack->setCommChannel(nullptr);
  EXPECT_EQ(stack->commChannel(), nullptr);
  stack->setAggregator(nullptr);
  EXPECT_EQ(stack->aggregator(), nullptr);
  stack->setAppender(nullptr);
  EXPECT_EQ(stack->appender(), nullptr);
  stack->setEcidChecker(nullptr);
  EXPECT_EQ(stack->ecidChecker(), nullptr);
  stack->setReadFilterTransformers(ZPKDataTransformerArray{});
  stack->setReadFilterTransformers(std::nullopt);
  EXPECT_FALSE(stack->readFilterTransformers().has_value());
  stack->setReadFilterHexTransformers(ZPKDataTransformerArray{});
  stack->setReadFilterHexTransformers(std::nullopt);
  EXPECT_FALSE(stack->readFilterHexTransformers().has_value());
  stack->setLogFilePath("/a");
  stack->setLogFilePath(std::nullopt);
  EXPECT_EQ(stack->logFilePath(), std::nullopt);
  stack->setPreAggregatorLogFilePath("/b");
  stack->setPreAggregatorLogFilePath(std::nullopt);
  EXPECT_EQ(stack->preAggregatorLogFilePath(), std::nullopt);
}

TEST_F(ZPKCommStackTest, PlainAccessorsAreNotGuardedByTheCreatedChain) {
  const ScriptedStack made;
  const ZPKDataChannelPtr chain = made->commChannel();
  made->setActiveChannelOnOff(true);
  made->setLogFilePath("/a");
  EXPECT_TRUE(made->activeChannelOnOff());
  EXPECT_EQ(made->logFilePath(), "/a");
  EXPECT_EQ(made->commChannel(), chain);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTest, SettersWithoutTransformersStillSucceed) {
  const auto stack = ZPKCommStack::init();
  stack->setAggregator(nullptr);
  stack->setAppender(nullptr);
  stack->setEcidChecker(nullptr);
  EXPECT_TRUE(stack->setDelimiter("#"));
  EXPECT_TRUE(stack->setLineTerminator("\r"));
  EXPECT_TRUE(stack->enableECIDSwapDetectionWithECID(1));
}

// --- Settings.

TEST_F(ZPKCommStackTest, TimeoutIsExceptionUsesTheNumbersBoolValue) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  const std::vector<std::pair<std::optional<ZPKNumber>, bool>> cases = {
      {std::nullopt, false}, {1, true},  {0, false},   {0.5, true},
      {0.0, false},          {-1, true}, {true, true}, {false, false}};
  for (const auto& [number, expected] : cases) {
    made->setTimeoutIsException(!expected);
    EXPECT_TRUE(made->setTimeoutIsException(number, &error));
    EXPECT_EQ(made->timeoutIsException(), expected)
        << (number.has_value() ? number->stringValue() : "null");
  }
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommStackTest, DelimiterAndTerminatorGoToTheirTransformersAsUTF8) {
  const ScriptedStack made;
  const auto aggregator = made->aggregator();
  const auto appender = made->appender();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(made->setDelimiter("\u20AC> ", &error));
  EXPECT_TRUE(made->setLineTerminator("\u00E9\r\n", &error));
  EXPECT_EQ(bytesOf(aggregator->data2Find()), "\xE2\x82\xAC> ");
  EXPECT_EQ(bytesOf(appender->dataToAppend()), "\xC3\xA9\r\n");
  EXPECT_EQ(made->aggregator(), aggregator);
  EXPECT_EQ(made->appender(), appender);
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommStackTest, ANullSettingStaysNullAndAnEmptyOneEmpty) {
  const auto stack = ZPKCommStack::init();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->setDelimiter(std::nullopt, &error));
  EXPECT_TRUE(stack->setLineTerminator(std::nullopt, &error));
  EXPECT_EQ(stack->aggregator()->data2Find(), nullptr);
  EXPECT_EQ(stack->appender()->dataToAppend(), nullptr);
  EXPECT_TRUE(stack->setDelimiter("", &error));
  EXPECT_TRUE(stack->setLineTerminator("", &error));
  EXPECT_EQ(bytesOf(stack->aggregator()->data2Find()), "");
  EXPECT_EQ(bytesOf(stack->appender()->dataToAppend()), "");
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommStackTest, ADelimiterMayContainNulBytes) {
  const auto stack = ZPKCommStack::init();
  stack->setDelimiter(std::string_view("\0>", 2));
  EXPECT_EQ(bytesOf(stack->aggregator()->data2Find()), std::string("\0>", 2));
}

TEST_F(ZPKCommStackTest, EnablingSwapDetectionForgetsAnEarlierSwap) {
  const auto stack = ZPKCommStack::init();
  stack->setEcidSwapInformation("an earlier swap");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->enableECIDSwapDetectionWithECID(uint64_t{0x00001234DEADBEEF}, &error));
  EXPECT_EQ(stack->ecidChecker()->expectedECIDString(), "[00001234:DEADBEEF]");
  EXPECT_EQ(stack->ecidSwapInformation(), std::nullopt);
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommStackTest, AllSixtyFourBitsOfAnECIDCount) {
  const auto stack = ZPKCommStack::init();
  stack->enableECIDSwapDetectionWithECID(UINT64_MAX);
  EXPECT_EQ(stack->ecidChecker()->expectedECIDString(), "[FFFFFFFF:FFFFFFFF]");
  stack->enableECIDSwapDetectionWithECID(0);
  EXPECT_EQ(stack->ecidChecker()->expectedECIDString(), "[00000000:00000000]");
}

TEST_F(ZPKCommStackTest, ANullECIDTurnsDetectionOffAgain) {
  const auto stack = ZPKCommStack::init();
  stack->enableECIDSwapDetectionWithECID(7);
  EXPECT_TRUE(stack->enableECIDSwapDetectionWithECID(std::nullopt));
  EXPECT_EQ(stack->ecidChecker()->expectedECIDString(), std::nullopt);
}

TEST_F(ZPKCommStackTest, ACreatedChainFreezesTheECIDForGood) {
  const auto base = ScriptedChannel::make();
  base->setOpened(false);
  const auto stack = ZPKCommStack::init();
  stack->enableECIDSwapDetectionWithECID(7);
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  stack->setEcidSwapInformation("a swap");
  const auto expectRefusal = [&] {
    log.clear();
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(stack->enableECIDSwapDetectionWithECID(8, &error));
    expectFailure(error, log,
                  commStackFailure(
                      302, "Cannot enable ecid swap detection while uart stack is already created",
                      "enableECIDSwapDetectionWithECID:error:"));
    EXPECT_EQ(stack->ecidChecker()->expectedECIDString(), "[00000000:00000007]");
    EXPECT_EQ(stack->ecidSwapInformation(), "a swap");
  };
  expectRefusal();  // never opened
  ASSERT_TRUE(stack->openWithTimeout(1));
  expectRefusal();
  ASSERT_TRUE(stack->close());
  expectRefusal();
}

}  // namespace
