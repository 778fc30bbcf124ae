#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogFile.h"
#include "Support/ScriptedStack.h"
#include "Support/TemporaryFolder.h"
#include "Support/WaitingChannel.h"
#include "Utility/ZPKConstants.h"

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
  ASSERT_TRUE(waitFor([&] { return stack->aggregator()->buffer()->length() == 0; }));
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
  }
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->createStackWithBaseChannel(WaitingChannel::make(), &error));
  expectFailure(error, log, loggerFailure(303, kAlreadyOpen, "createStackWithBaseChannel:error:"));
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

TEST_F(ZPKCommLoggerStackTest, ACloseThatFailsAtDestructionIsALineInTheLog) {
  base->setCloseResult(false, olderError());
  open();
  LogCapture log;
  stack.reset();
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Error closing commChannel during dealloc : " +
                                                      olderError()->debugDescription()}));
}

}  // namespace
