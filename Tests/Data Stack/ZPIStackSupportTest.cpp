#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPIStackSupport.h"
#include "Support/ErrorExpectations.h"
#include "Support/ScriptedChannel.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ZPIStackSupportTest, ANullTimeoutIsForever) {
  EXPECT_EQ(ZPISecondsOf(std::nullopt), ZEPHAL_COMMUNICATION_TIME_FOREVER);
  EXPECT_EQ(ZPISecondsOf(0), 0.0);
  EXPECT_EQ(ZPISecondsOf(0.5), 0.5);
}

TEST(ZPIStackSupportTest, ANullNumberCountsAsFalse) {
  EXPECT_FALSE(ZPIBoolOf(std::nullopt));
  EXPECT_FALSE(ZPIBoolOf(0));
  EXPECT_TRUE(ZPIBoolOf(2));
}

TEST(ZPIStackSupportTest, ANullStringStaysNullAndAnEmptyOneEmpty) {
  EXPECT_EQ(ZPIStringOf(std::nullopt), std::nullopt);
  EXPECT_EQ(ZPIStringOf(""), "");
  EXPECT_EQ(ZPIStringOf("path"), "path");
}

TEST(ZPIStackSupportTest, ANullPathLeavesTheChannelUnchanged) {
  const ZPKDataChannelPtr channel = ScriptedChannel::make();
  EXPECT_EQ(ZPIWithLog(channel, std::nullopt, "post", nullptr), channel);
}

TEST(ZPIStackSupportTest, APathPutsAClosedLogAboveTheChannel) {
  const ZPKDataChannelPtr channel = ScriptedChannel::make();
  ZPKErrorPtr error = olderError();
  const ZPKDataChannelPtr logged = ZPIWithLog(channel, "/nowhere/at/all.log", "post", &error);
  ASSERT_NE(logged, nullptr);
  EXPECT_NE(logged, channel);
  EXPECT_TRUE(logged->isOpened());
  EXPECT_EQ(error, olderError());
}

TEST(ZPIStackSupportTest, ANullChainIsNotOpen) {
  EXPECT_FALSE(ZPIIsOpened(nullptr));
  EXPECT_TRUE(ZPIIsOpened(ScriptedChannel::make()));
  EXPECT_FALSE(ZPIIsOpened(ScriptedChannel::makeClosed()));
}

TEST(ZPIStackSupportTest, AGoodCloseResetsTheChain) {
  auto chain = ScriptedChannel::make();
  EXPECT_TRUE(ZPICloseChain(chain, nullptr));
  EXPECT_THAT(chain->calls(), ElementsAre("close", "reset"));
}

TEST(ZPIStackSupportTest, AFailedCloseSkipsTheReset) {
  auto chain = ScriptedChannel::make();
  chain->setCloseResult(false, olderError());
  ZPKErrorPtr error;
  EXPECT_FALSE(ZPICloseChain(chain, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(chain->calls(), ElementsAre("close"));
}

TEST(ZPIStackSupportTest, AFailedResetFailsTheClose) {
  auto chain = ScriptedChannel::make();
  chain->setResetResult(false, olderError());
  ZPKErrorPtr error;
  EXPECT_FALSE(ZPICloseChain(chain, &error));
  EXPECT_EQ(error, olderError());
}

TEST(ZPIStackSupportTest, ClosingANullChainFailsWithoutErrorOrLine) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(ZPICloseChain(nullptr, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPIStackSupportTest, AnAbandonedOpenChainIsClosedWithoutAReset) {
  LogCapture log;
  auto chain = ScriptedChannel::make();
  ZPICloseAbandonedChain(chain);
  EXPECT_THAT(chain->calls(), ElementsAre("close"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPIStackSupportTest, AnAbandonedClosedOrNullChainIsLeftAlone) {
  auto chain = ScriptedChannel::makeClosed();
  ZPICloseAbandonedChain(chain);
  ZPICloseAbandonedChain(nullptr);
  EXPECT_THAT(chain->calls(), IsEmpty());
}

TEST(ZPIStackSupportTest, AFailedCloseOfAnAbandonedChainIsLogged) {
  LogCapture log;
  auto chain = ScriptedChannel::make();
  chain->setCloseResult(false, olderError());
  ZPICloseAbandonedChain(chain);
  const std::string line =
      "Error closing commChannel during dealloc : " + olderError()->debugDescription();
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, line}));
}

TEST(ZPIStackSupportTest, WithoutMemoryAFailedCloseOfAnAbandonedChainGoesUnreported) {
  constexpr size_t kAllocations = 3;  // at least as many as the line needs
  for (size_t failing = 0; failing < kAllocations; ++failing) {
    LogCapture log;
    auto chain = ScriptedChannel::make();
    chain->setCloseResult(false, olderError());
    SystemCalls calls;
    calls.failAllocation(failing);
    ZPICloseAbandonedChain(chain);
    EXPECT_GT(calls.allocations(), failing);
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

}  // namespace
