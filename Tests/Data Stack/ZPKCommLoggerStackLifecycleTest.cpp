// Creating, opening and closing a recorder, and which calls are rejected in which state.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <utility>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/LogCapture.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/RecorderFixture.h"
#include "Support/ScriptedStack.h"
#include "Support/SimulatedDevice.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"
#include "Support/WaitingChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kAlreadyOpen =
    "UART port cannot already be open, please call \"close\" before calling open again";

ExpectedFailure loggerFailure(int code, std::string description, const std::string& operation) {
  return {"zephal-commloggerchannel", code, std::move(description),
          "-[ZPKCommLoggerStack " + operation + "]", "ZPKCommLoggerStack.cpp"};
}

using ZPKCommLoggerStackLifecycleTest = RecorderFixture;

TEST_F(ZPKCommLoggerStackLifecycleTest, WithoutItsLogAnOpenLeavesTheDeviceClosed) {
  ASSERT_TRUE(stack->setLogFilePath(folder.pathOf("missing/post.log"), std::nullopt));
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->open(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(base->count("open"), 0U);
  EXPECT_EQ(stack->isOpen(), 0);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, AFailedOpenMayBeRepeatedWithItsLogsOpen) {
  const std::set<int> before = openDescriptors();
  base->setOpenResult(false, errorFromBelow());
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  const ZPKDataChannelPtr chain = stack->commChannel();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->open(&error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_FALSE(stack->open());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(stack->commChannel(), chain);
  EXPECT_EQ(stack->isOpen(), 0);
  EXPECT_EQ(base->reads(), 0U);
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);

  base->setOpenResult(true);
  error = olderError();
  ASSERT_TRUE(stack->open(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);
  deliver("at last");
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: at last"));
}

TEST_F(ZPKCommLoggerStackLifecycleTest, CloseAfterAFailedOpenFailsWithCode2) {
  base->setOpenResult(false, errorFromBelow());
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  ASSERT_FALSE(stack->open());
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  expectFailure(error, log,
                {"zephal-communication", 2, "Device Already Closed", "-[ZPIActiveChannel close:]",
                 "ZPIActiveChannel.cpp"});
  EXPECT_EQ(base->count("reset"), 0U);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, AGoodCloseResetsTheChainAndKeepsIt) {
  stack->setDelimiter(";");
  open();
  const ZPKDataChannelPtr chain = stack->commChannel();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(base->count("close"), 1U);
  EXPECT_EQ(base->count("reset"), 1U);
  EXPECT_EQ(stack->commChannel(), chain);
  EXPECT_EQ(bytesOf(stack->aggregator()->data2Find()), ";");
}

TEST_F(ZPKCommLoggerStackLifecycleTest, AFailedCloseSkipsTheResetAndKeepsHeldBytes) {
  stack->setDelimiter(";");
  open();
  deliver("held");
  base->setCloseResult(false, errorFromBelow());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_EQ(base->count("reset"), 0U);
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "held");
}

TEST_F(ZPKCommLoggerStackLifecycleTest, AFailedResetFailsTheClose) {
  open();
  base->setResetResult(false, errorFromBelow());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_EQ(stack->isOpen(), 0);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, AnUnknownSchemeFailsWithCode300NotCode3) {
  for (const char* url : {"http://host", "UART:///dev/null", "no scheme at all"}) {
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(stack->createStackWithURL(url, &error)) << url;
    expectFailure(error, log,
                  loggerFailure(300, "Invalid URL scheme", "createStackWithURL:error:"));
    EXPECT_EQ(stack->commChannel(), nullptr);
    EXPECT_FALSE(ZPKCommStack::init()->createStackWithURL(url, &error));
    EXPECT_EQ(error->domain(), "zephalbench.zephal-communication");
    EXPECT_EQ(error->code(), 3);
  }
}

TEST_F(ZPKCommLoggerStackLifecycleTest, ANullURLIsAnUnknownScheme) {
  LogCapture log;
  EXPECT_FALSE(stack->createStackWithURL(std::nullopt));
  EXPECT_THAT(log.texts(), ElementsAre("Invalid URL scheme"));
}

TEST_F(ZPKCommLoggerStackLifecycleTest, WhileOpenABadSchemeIsReportedAsCode303) {
  open();
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->createStackWithURL("http://host", &error));
  expectError(error, loggerFailure(303, kAlreadyOpen, "createStackWithBaseChannel:error:"));
  EXPECT_THAT(log.texts(), ElementsAre("Invalid URL scheme", kAlreadyOpen));
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, ABadSchemeLeavesAClosedChainUnchanged) {
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  const ZPKDataChannelPtr chain = stack->commChannel();
  LogCapture log;
  EXPECT_FALSE(stack->createStackWithURL("http://host"));
  EXPECT_EQ(stack->commChannel(), chain);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, WhileOpenAnyURLOrChannelGetsCode303) {
  open();
  const ZPKDataChannelPtr chain = stack->commChannel();
  const auto expected = loggerFailure(303, kAlreadyOpen, "createStackWithBaseChannel:error:");
  {
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(stack->createStackWithURL("unix:///nowhere", &error));
    expectFailure(error, log, expected);
  }
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->createStackWithBaseChannel(nullptr, &error));
  expectFailure(error, log, expected);
  EXPECT_EQ(stack->commChannel(), chain);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, ASerialURLSetsItsBaudRate) {
  TransportPeer peer(TransportPeer::Kind::kTerminal);
  ASSERT_TRUE(stack->createStackWithURL(peer.url() + "?baud=9600&mode=7E1&other=1"));
  ASSERT_TRUE(stack->open());
  EXPECT_EQ(terminalSpeeds(peer.nearEnd()).second, 9600U);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, EachKnownSchemeGivesAClosedStack) {
  for (const char* url : {"uart:///dev/null", "tcp://127.0.0.1:1", "unix:///nowhere"}) {
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(stack->createStackWithURL(url, &error)) << url;
    EXPECT_EQ(error, olderError());
    EXPECT_EQ(stack->isOpen(), 0);
  }
}

TEST_F(ZPKCommLoggerStackLifecycleTest, ANullChannelFailsWithoutAnErrorOrALine) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->createStackWithBaseChannel(nullptr, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, OpeningWithoutAChainFailsWithCode301) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->open(&error));
  expectFailure(error, log,
                loggerFailure(301,
                              "UART port stack not created, please call \"createStackWithURL\" "
                              "before calling open",
                              "openWithTimeout:error:"));
  EXPECT_FALSE(stack->openWithTimeout(1));
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(stack->commChannel(), nullptr);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, OnceCreatedALogPathIsRefusedWithCode302) {
  constexpr const char* kMessage =
      "Cannot enable log file while comm stack is already created/opened";
  const auto refuse = [&] {
    LogCapture log;
    ZPKErrorPtr error;
    EXPECT_FALSE(stack->setLogFilePath("other", "another", &error));
    expectFailure(error, log,
                  loggerFailure(302, kMessage, "setLogFilePath:preAggregatorLogFilePath:error:"));
    EXPECT_EQ(stack->logFilePath(), postPath);
    EXPECT_EQ(stack->preAggregatorLogFilePath(), prePath);
  };
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  refuse();
  ASSERT_TRUE(stack->open());
  refuse();
  ASSERT_TRUE(stack->close());
  refuse();
  LogCapture log;
  EXPECT_FALSE(stack->setLogFilePath(std::nullopt, std::nullopt));
  EXPECT_THAT(log.texts(), ElementsAre(kMessage));
}

TEST_F(ZPKCommLoggerStackLifecycleTest, WhileOpenOpeningAndCreatingFailWithCode303) {
  open();
  {
    LogCapture log;
    ZPKErrorPtr error;
    EXPECT_FALSE(stack->openWithTimeout(1, &error));
    expectFailure(error, log, loggerFailure(303, kAlreadyOpen, "openWithTimeout:error:"));
    EXPECT_FALSE(stack->open());
    EXPECT_EQ(log.count(kAlreadyOpen), 2U);
  }
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->createStackWithBaseChannel(WaitingChannel::make(), &error));
  expectFailure(error, log, loggerFailure(303, kAlreadyOpen, "createStackWithBaseChannel:error:"));
  EXPECT_FALSE(stack->createStackWithBaseChannel(WaitingChannel::make()));
  EXPECT_EQ(log.count(kAlreadyOpen), 2U);
  EXPECT_EQ(base->count("open"), 1U);
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, ClosingWithoutAChainFailsWithoutAnError) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  EXPECT_EQ(stack->isOpen(&error), 0);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, ASecondCreateReplacesTheChainAndDropsHeldBytes) {
  stack->setDelimiter(";");
  stack->aggregator()->buffer()->append(*dataOf("held"));
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  EXPECT_EQ(stack->aggregator()->buffer()->length(), 0U);
  const ZPKDataChannelPtr first = stack->commChannel();
  ASSERT_TRUE(stack->createStackWithBaseChannel(WaitingChannel::make()));
  EXPECT_NE(stack->commChannel(), first);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, DestructionClosesWhatIsOpen) {
  open();
  stack.reset();
  EXPECT_EQ(base->count("close"), 1U);
  EXPECT_EQ(base->count("reset"), 0U);
}

TEST_F(ZPKCommLoggerStackLifecycleTest, DestructionLeavesAClosedOrMissingChainAlone) {
  LogCapture log;
  ZPKCommLoggerStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  stack.reset();
  EXPECT_EQ(base->count("close"), 0U);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommLoggerStackLifecycleTest, AFailedCloseAtDestructionIsLogged) {
  base->setCloseResult(false, olderError());
  open();
  LogCapture log;
  stack.reset();
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Error closing commChannel during dealloc : " +
                                                      olderError()->debugDescription()}));
}

// --- Over sockets.

class ZPKCommLoggerStackSocketTest : public RecorderFixture,
                                     public testing::WithParamInterface<SimulatedDevice::Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, ZPKCommLoggerStackSocketTest,
                         testing::Values(SimulatedDevice::Kind::kTCP, SimulatedDevice::Kind::kUnix),
                         [](const auto& kind) {
                           return std::string(kind.param == SimulatedDevice::Kind::kTCP ? "TCP"
                                                                                        : "Unix");
                         });

TEST_P(ZPKCommLoggerStackSocketTest, WhenThePeerHangsUpCloseFailsWithoutAReset) {
  SimulatedDevice device(GetParam());
  stack->setDelimiter(";");
  ASSERT_TRUE(stack->createStackWithURL(device.url()));
  ASSERT_TRUE(stack->open());
  ASSERT_TRUE(device.waitForConnections(1));
  device.send("unit;held");
  ASSERT_TRUE(waitFor([&] { return contentsOfFile(prePath).ends_with("held"); }));
  LogCapture log;
  device.hangUp();
  ASSERT_TRUE(waitFor([&] { return stack->isOpen() == 0; }));
  // The first close may be too early: the thread stores the error last.
  ZPKErrorPtr error;
  ASSERT_TRUE(waitFor([&] {
    EXPECT_FALSE(stack->close(&error));
    return error->description() != "Device Already Closed";
  }));
  expectError(error, {"zephal-communication", 2, error->description(), "zephal_communication_read",
                      "DescriptorOperation.cpp"});
  EXPECT_EQ(log.count(error->description()), 1U);
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "held");

  ASSERT_TRUE(stack->open());
  ASSERT_TRUE(device.waitForConnections(2));
  device.send(";");
  ASSERT_TRUE(waitFor([&] { return textsOfLog(postPath).size() == 2; }));
  EXPECT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: unit;", "post--read: held;"));
}

}  // namespace
