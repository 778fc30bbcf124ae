#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/ScriptedStack.h"
#include "Support/SimulatedDevice.h"
#include "Support/TemporaryFolder.h"
#include "Support/TerminalState.h"
#include "Support/TransportPeer.h"
#include "Support/WaitingChannel.h"
#include "Utility/ZPKConstants.h"

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

/// A recorder with both logs on a channel that waits for what the test delivers.
class ZPKCommLoggerStackTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(stack->setLogFilePath(postPath, prePath)); }

  void open() {
    ASSERT_TRUE(stack->createStackWithBaseChannel(base));
    ASSERT_TRUE(stack->open());
  }

  /// Delivers what one read gives, and waits until the thread has dealt with it.
  void deliver(std::string_view bytes) {
    base->deliver(bytes);
    ASSERT_TRUE(base->waitUntilAllIsHandedOn());
  }

  TemporaryFolder folder;
  const std::string postPath = folder.pathOf("post.log");
  const std::string prePath = folder.pathOf("pre.log");
  std::shared_ptr<WaitingChannel> base = WaitingChannel::make();
  ZPKCommLoggerStackPtr stack = ZPKCommLoggerStack::init();
};

TEST_F(ZPKCommLoggerStackTest, ANewStackHasAnEmptyDelimiterNoLogsAndNoChain) {
  const auto fresh = ZPKCommLoggerStack::init();
  ASSERT_NE(fresh->aggregator(), nullptr);
  ASSERT_NE(fresh->aggregator()->data2Find(), nullptr);
  EXPECT_EQ(fresh->aggregator()->data2Find()->length(), 0U);
  EXPECT_EQ(fresh->logFilePath(), std::nullopt);
  EXPECT_EQ(fresh->preAggregatorLogFilePath(), std::nullopt);
  EXPECT_EQ(fresh->commChannel(), nullptr);
  EXPECT_EQ(fresh->isOpen(), 0);
}

TEST_F(ZPKCommLoggerStackTest, EveryPlainAccessorGivesBackWhatWasSetAndTakesNull) {
  const auto other = ZPKCommLoggerStack::init();
  EXPECT_NE(stack->aggregator(), other->aggregator());
  stack->setCommChannel(base);
  EXPECT_EQ(stack->commChannel(), base);
  stack->setAggregator(other->aggregator());
  EXPECT_EQ(stack->aggregator(), other->aggregator());
  stack->setLogFilePath("/a");
  EXPECT_EQ(stack->logFilePath(), "/a");
  stack->setPreAggregatorLogFilePath("");
  EXPECT_EQ(stack->preAggregatorLogFilePath(), "");
  stack->setCommChannel(nullptr);
  EXPECT_EQ(stack->commChannel(), nullptr);
  stack->setAggregator(nullptr);
  EXPECT_EQ(stack->aggregator(), nullptr);
  stack->setLogFilePath(std::nullopt);
  EXPECT_EQ(stack->logFilePath(), std::nullopt);
  stack->setPreAggregatorLogFilePath(std::nullopt);
  EXPECT_EQ(stack->preAggregatorLogFilePath(), std::nullopt);
}

TEST_F(ZPKCommLoggerStackTest, BothLogPathsAreStoredANullTooAndTheSlotStays) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->setLogFilePath("/a", std::nullopt, &error));
  EXPECT_EQ(stack->logFilePath(), "/a");
  EXPECT_EQ(stack->preAggregatorLogFilePath(), std::nullopt);
  EXPECT_TRUE(stack->setLogFilePath(std::nullopt, "", &error));
  EXPECT_EQ(stack->logFilePath(), std::nullopt);
  EXPECT_EQ(stack->preAggregatorLogFilePath(), "");
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommLoggerStackTest, ANullDelimiterIsNullAnEmptyOneIsEmptyAndTheSlotStays) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->setDelimiter("\u20AC\n", &error));
  EXPECT_EQ(bytesOf(stack->aggregator()->data2Find()), "\xE2\x82\xAC\n");
  EXPECT_TRUE(stack->setDelimiter(std::nullopt, &error));
  EXPECT_EQ(stack->aggregator()->data2Find(), nullptr);
  EXPECT_TRUE(stack->setDelimiter("", &error));
  EXPECT_EQ(bytesOf(stack->aggregator()->data2Find()), "");
  EXPECT_EQ(error, olderError());
  stack->setAggregator(nullptr);
  EXPECT_TRUE(stack->setDelimiter(";", &error));
}

TEST_F(ZPKCommLoggerStackTest, WithoutADelimiterBothLogsGetTheSameChunks) {
  open();
  deliver("boot");
  deliver("ing 100%@\nok");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath),
              ElementsAre("pre---read: boot", "pre---read: ing 100%@", "pre---read: ok"));
  EXPECT_THAT(textsOfLog(postPath),
              ElementsAre("post--read: boot", "post--read: ing 100%@", "post--read: ok"));
}

TEST_F(ZPKCommLoggerStackTest, WithADelimiterTheOuterLogGetsOneEntryForEachUnit) {
  stack->setDelimiter(";");
  open();
  deliver("on");
  deliver("e;two;th");
  deliver("ree;");
  // A read hands out one unit, so the thread is not through with all of them yet.
  ASSERT_TRUE(waitFor([&] { return textsOfLog(postPath).size() == 3; }));
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath),
              ElementsAre("pre---read: on", "pre---read: e;two;th", "pre---read: ree;"));
  EXPECT_THAT(textsOfLog(postPath),
              ElementsAre("post--read: one;", "post--read: two;", "post--read: three;"));
}

TEST_F(ZPKCommLoggerStackTest, ADelimiterSetWhileRunningAlsoSearchesWhatIsHeld) {
  stack->setDelimiter(";");
  open();
  deliver("one,two");
  ASSERT_TRUE(stack->setDelimiter(","));
  deliver("!,");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: one,", "post--read: two!,"));
}

TEST_F(ZPKCommLoggerStackTest, ADelimiterThatIsTakenAwayWhileRunningLetsGoOfWhatIsHeld) {
  stack->setDelimiter(";");
  open();
  deliver("half");
  ASSERT_TRUE(stack->setDelimiter(std::nullopt));
  deliver("!");
  ASSERT_TRUE(stack->setDelimiter(""));
  deliver("?");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: half!", "post--read: ?"));
}

// Whatever the delimiter is at any moment, no byte is lost and none comes twice.
TEST_F(ZPKCommLoggerStackTest, TheDelimiterMayChangeAtAnyMoment) {
  open();
  std::atomic<bool> isOver{false};
  std::thread changer([&] {
    while (!isOver) {
      for (const char* delimiter : {";", ",", ""}) stack->setDelimiter(delimiter);
    }
  });
  std::string sent;
  for (int i = 0; i < 200; ++i) {
    const std::string bytes = std::to_string(i) + ";" + std::to_string(i) + ",";
    base->deliver(bytes);
    sent += bytes;
  }
  EXPECT_TRUE(base->waitUntilAllIsHandedOn());
  isOver = true;
  changer.join();
  stack->setDelimiter("");
  deliver("end");
  ASSERT_TRUE(stack->close());
  std::string logged;
  for (const LogFileLine& line : linesOfLog(postPath)) logged += line.text;
  EXPECT_EQ(logged, sent + "end");
}

TEST_F(ZPKCommLoggerStackTest, BytesHeldForWantOfADelimiterAtCloseAreInTheRawLogOnly) {
  stack->setDelimiter(";");
  open();
  deliver("one;half");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre---read: one;half"));
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: one;"));
  EXPECT_EQ(stack->aggregator()->buffer()->length(), 0U);
}

TEST_F(ZPKCommLoggerStackTest, WithoutAPathEverythingIsReadAndDroppedAndNoFileIsMade) {
  ASSERT_TRUE(stack->setLogFilePath(std::nullopt, std::nullopt));
  open();
  deliver("nobody hears this");
  ASSERT_TRUE(stack->close());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(ZPKCommLoggerStackTest, OneLogCanBeHadWithoutTheOther) {
  ASSERT_TRUE(stack->setLogFilePath(std::nullopt, prePath));
  open();
  deliver("raw");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre---read: raw"));
  EXPECT_FALSE(std::filesystem::exists(postPath));
}

TEST_F(ZPKCommLoggerStackTest, OpenIsOpenWithTimeoutWithANullNumber) {
  open();
  EXPECT_THAT(base->openTimeouts(), ElementsAre(ZEPHAL_COMMUNICATION_TIME_FOREVER));
  ASSERT_TRUE(stack->close());
  ASSERT_TRUE(stack->openWithTimeout(2.5));
  EXPECT_THAT(base->openTimeouts(), ElementsAre(ZEPHAL_COMMUNICATION_TIME_FOREVER, 2.5));
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackTest, ALogFileGrowsOverSeveralOpens) {
  open();
  deliver("first");
  ASSERT_TRUE(stack->close());
  ASSERT_TRUE(stack->open());
  deliver("second");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: first", "post--read: second"));
}

TEST_F(ZPKCommLoggerStackTest, ReadsAndWritesFromOutsideAreRefusedWithCode6) {
  open();
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(stack->commChannel()->readWithTimeout(0, &error), nullptr);
  EXPECT_EQ(error->code(), 6);
  EXPECT_FALSE(stack->commChannel()->write(dataOf("x"), &error));
  EXPECT_EQ(error->code(), 6);
  EXPECT_THAT(base->writes(), IsEmpty());
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackTest, WhenTheDeviceGoesIsOpenTurnsTo0AndCloseGivesWhatTheReadReported) {
  open();
  deliver("last words");
  base->fail(olderError());
  ASSERT_TRUE(waitFor([&] { return stack->isOpen() == 0; }));
  LogCapture log;
  ZPKErrorPtr error;
  ASSERT_TRUE(waitFor([&] {
    log.clear();
    return !stack->close(&error) && error->domain() == olderError()->domain();
  }));
  EXPECT_EQ(error->code(), 2);
  EXPECT_EQ(error->userInfo(), olderError()->userInfo());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(base->count("reset"), 0U);
  EXPECT_TRUE(stack->open());
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackTest, WhenTheDeviceWentOnlyANewChainClosesTheLogs) {
  const std::set<int> before = openDescriptors();
  stack->setDelimiter(";");
  open();
  deliver("half");
  base->fail(olderError());
  ASSERT_TRUE(waitFor([&] { return stack->isOpen() == 0; }));
  EXPECT_FALSE(stack->close());
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "half");
  ASSERT_TRUE(stack->createStackWithBaseChannel(WaitingChannel::make()));
  EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }));
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "");
}

TEST_F(ZPKCommLoggerStackTest, AChannelThatIsOpenAlreadyIsReadAtOnceAndNotLogged) {
  base = WaitingChannel::makeOpen();
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  EXPECT_EQ(stack->isOpen(), 1);
  deliver("unlogged");
  EXPECT_TRUE(stack->close());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(ZPKCommLoggerStackTest, ALogThatCannotBeMadeFailsTheOpenAndLeavesTheDeviceClosed) {
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

TEST_F(ZPKCommLoggerStackTest, AFailedOpenKeepsTheChainAndTheOpenLogsAndMayBeTriedAgain) {
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

TEST_F(ZPKCommLoggerStackTest, CloseAfterAFailedOpenFailsWithCode2WithoutAReset) {
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

TEST_F(ZPKCommLoggerStackTest, AGoodCloseResetsTheChainAndKeepsIt) {
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

TEST_F(ZPKCommLoggerStackTest, AFailedCloseSkipsTheResetAndKeepsHeldBytes) {
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

TEST_F(ZPKCommLoggerStackTest, AFailedResetFailsTheClose) {
  open();
  base->setResetResult(false, errorFromBelow());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_EQ(stack->isOpen(), 0);
}

TEST_F(ZPKCommLoggerStackTest, AnUnknownSchemeIsCode300HereAndCode3InACommStack) {
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

TEST_F(ZPKCommLoggerStackTest, ANullURLIsAnUnknownSchemeAndLogsWithoutASlotToo) {
  LogCapture log;
  EXPECT_FALSE(stack->createStackWithURL(std::nullopt));
  EXPECT_THAT(log.texts(), ElementsAre("Invalid URL scheme"));
}

TEST_F(ZPKCommLoggerStackTest, OnAnOpenStackABadSchemeIsReplacedByCode303) {
  open();
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->createStackWithURL("http://host", &error));
  expectError(error, loggerFailure(303, kAlreadyOpen, "createStackWithBaseChannel:error:"));
  EXPECT_THAT(log.texts(), ElementsAre("Invalid URL scheme", kAlreadyOpen));
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackTest, ABadSchemeLeavesAClosedChainAsItIs) {
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  const ZPKDataChannelPtr chain = stack->commChannel();
  LogCapture log;
  EXPECT_FALSE(stack->createStackWithURL("http://host"));
  EXPECT_EQ(stack->commChannel(), chain);
}

TEST_F(ZPKCommLoggerStackTest, OnAnOpenStackAGoodURLAndANullChannelAreCode303Too) {
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

TEST_F(ZPKCommLoggerStackTest, ASerialURLSetsTheSpeedThatItTells) {
  TransportPeer peer(TransportPeer::Kind::kTerminal);
  ASSERT_TRUE(stack->createStackWithURL(peer.url() + "?baud=9600&mode=7E1&other=1"));
  ASSERT_TRUE(stack->open());
  EXPECT_EQ(terminalSpeeds(peer.nearEnd()).second, 9600U);
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommLoggerStackTest, WithoutAnAggregatorTheChainIsMadeAndRecordsUncut) {
  stack->setDelimiter(";");
  stack->setAggregator(nullptr);
  LogCapture log;
  ZPKErrorPtr error = olderError();
  ASSERT_TRUE(stack->createStackWithBaseChannel(base, &error));
  EXPECT_EQ(stack->isOpen(), 0);
  ASSERT_TRUE(stack->open(&error));
  deliver("one;tw");
  EXPECT_TRUE(stack->setDelimiter("w"));
  deliver("o;");
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(stack->close());
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre---read: one;tw", "pre---read: o;"));
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: one;tw", "post--read: o;"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

// There is nothing to reset where the aggregator should be, so the reset fails; all else is done.
TEST_F(ZPKCommLoggerStackTest, WithoutAnAggregatorCloseClosesAndFailsWithoutAnError) {
  stack->setAggregator(nullptr);
  open();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(stack->isOpen(), 0);
  EXPECT_EQ(base->count("close"), 1U);
  EXPECT_EQ(base->count("reset"), 1U);
  EXPECT_THAT(log.lines(), IsEmpty());
  ASSERT_TRUE(stack->open());
  deliver("again");
  EXPECT_FALSE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: again"));
}

TEST_F(ZPKCommLoggerStackTest, EachKnownSchemeGivesAClosedStack) {
  for (const char* url : {"uart:///dev/null", "tcp://127.0.0.1:1", "unix:///nowhere"}) {
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(stack->createStackWithURL(url, &error)) << url;
    EXPECT_EQ(error, olderError());
    EXPECT_EQ(stack->isOpen(), 0);
  }
}

TEST_F(ZPKCommLoggerStackTest, ANullChannelFailsWithoutAnErrorOrALine) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->createStackWithBaseChannel(nullptr, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommLoggerStackTest, OpeningWithoutAChainFailsWithCode301) {
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

TEST_F(ZPKCommLoggerStackTest, ALogPathIsRefusedWithCode302OnceAChainWasCreatedAndAfterClose) {
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

TEST_F(ZPKCommLoggerStackTest, OpeningAndCreatingOnAnOpenStackFailWithCode303) {
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

TEST_F(ZPKCommLoggerStackTest, ClosingWithoutAChainFailsWithoutAnError) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  EXPECT_EQ(stack->isOpen(&error), 0);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommLoggerStackTest, ASecondCreateReplacesAClosedChainAndDropsHeldBytes) {
  stack->setDelimiter(";");
  stack->aggregator()->buffer()->append(*dataOf("held"));
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  EXPECT_EQ(stack->aggregator()->buffer()->length(), 0U);
  const ZPKDataChannelPtr first = stack->commChannel();
  ASSERT_TRUE(stack->createStackWithBaseChannel(WaitingChannel::make()));
  EXPECT_NE(stack->commChannel(), first);
}

TEST_F(ZPKCommLoggerStackTest, DestructionClosesWhatIsOpen) {
  open();
  stack.reset();
  EXPECT_EQ(base->count("close"), 1U);
  EXPECT_EQ(base->count("reset"), 0U);
}

TEST_F(ZPKCommLoggerStackTest, DestructionLeavesAClosedOrMissingChainAlone) {
  LogCapture log;
  ZPKCommLoggerStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  stack.reset();
  EXPECT_EQ(base->count("close"), 0U);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommLoggerStackTest, ACloseThatFailsAtDestructionIsALineInTheLog) {
  base->setCloseResult(false, olderError());
  open();
  LogCapture log;
  stack.reset();
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Error closing commChannel during dealloc : " +
                                                      olderError()->debugDescription()}));
}

// --- Over sockets.

class ZPKCommLoggerStackSocketTest : public ZPKCommLoggerStackTest,
                                     public testing::WithParamInterface<SimulatedDevice::Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, ZPKCommLoggerStackSocketTest,
                         testing::Values(SimulatedDevice::Kind::kTCP, SimulatedDevice::Kind::kUnix),
                         [](const auto& kind) {
                           return std::string(kind.param == SimulatedDevice::Kind::kTCP ? "TCP"
                                                                                        : "Unix");
                         });

TEST_P(ZPKCommLoggerStackSocketTest, WhenTheFarSideGoesOnlyIsOpenTellsAndCloseFailsWithoutAReset) {
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
  // A first close may come ahead of the error, which the thread stores last.
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
