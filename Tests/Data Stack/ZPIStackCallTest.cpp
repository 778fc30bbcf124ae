#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPIStackCall.h"
#include "Support/ErrorExpectations.h"
#include "Support/ScriptedChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

ZPIStackCall callOn(const ZPKDataChannelPtr& chain, ZPKErrorPtr* error) {
  return ZPIStackCall(kZPICommChannelDomain, chain.get(), error, {"theFunction"});
}

ExpectedFailure failure(int code, const char* description) {
  return {"zephal-commchannel", code, description, "theFunction", "ZPIStackCallTest.cpp"};
}

TEST(ZPIStackCallTest, TheChainIsTheOneGiven) {
  const ZPKDataChannelPtr chain = ScriptedChannel::make();
  EXPECT_EQ(callOn(chain, nullptr).chain(), chain.get());
  EXPECT_EQ(callOn(nullptr, nullptr).chain(), nullptr);
}

TEST(ZPIStackCallTest, ASettingIsRefusedOnceThereIsAChain) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(callOn(nullptr, &error).refuseOnceCreated("refused"));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(callOn(ScriptedChannel::makeClosed(), &error).refuseOnceCreated("refused"));
  expectFailure(error, log, failure(302, "refused"));
}

TEST(ZPIStackCallTest, OnlyAnOpenChainIsRefusedWhileOpen) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(callOn(nullptr, &error).refuseWhileOpen());
  EXPECT_FALSE(callOn(ScriptedChannel::makeClosed(), &error).refuseWhileOpen());
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(callOn(ScriptedChannel::make(), &error).refuseWhileOpen());
  expectFailure(
      error, log,
      failure(303,
              "UART port cannot already be open, please call \"close\" before calling open again"));
}

TEST(ZPIStackCallTest, AnOpenChainMayTalk) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(callOn(ScriptedChannel::make(), &error).refuseUnlessOpen());
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPIStackCallTest, TalkingWithoutAnOpenChainFailsWithCode304) {
  for (const ZPKDataChannelPtr& chain :
       {ZPKDataChannelPtr(), ZPKDataChannelPtr(ScriptedChannel::makeClosed())}) {
    LogCapture log;
    ZPKErrorPtr error;
    EXPECT_TRUE(callOn(chain, &error).refuseUnlessOpen());
    expectFailure(error, log,
                  failure(304,
                          "UART port not open, please call \"open\" before calling functions that "
                          "talk over UART"));
  }
}

TEST(ZPIStackCallTest, WithoutASlotARefusalIsLogged) {
  LogCapture log;
  EXPECT_TRUE(callOn(ScriptedChannel::makeClosed(), nullptr).refuseOnceCreated("refused"));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "refused"}));
}

TEST(ZPIStackCallTest, OpeningWithoutAChainFailsWithCode301) {
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(callOn(nullptr, &error).open(1.0));
  expectFailure(error, log,
                failure(301,
                        "UART port stack not created, please call \"createStackWithURL\" before "
                        "calling open"));
}

TEST(ZPIStackCallTest, OpeningAnOpenChainFailsWithCode303) {
  LogCapture log;
  ZPKErrorPtr error;
  auto chain = ScriptedChannel::make();
  EXPECT_FALSE(callOn(chain, &error).open(1.0));
  expectFailure(
      error, log,
      failure(303,
              "UART port cannot already be open, please call \"close\" before calling open again"));
  EXPECT_THAT(chain->calls(), IsEmpty());
}

TEST(ZPIStackCallTest, OpeningPassesTheTimeoutDown) {
  auto chain = ScriptedChannel::makeClosed();
  EXPECT_TRUE(callOn(chain, nullptr).open(2.5));
  EXPECT_THAT(chain->openTimeouts(), ElementsAre(2.5));
}

}  // namespace
