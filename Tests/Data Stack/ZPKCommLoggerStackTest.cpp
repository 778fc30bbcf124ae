#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/RecorderFixture.h"
#include "Support/WaitingChannel.h"
#include "Utility/ZPKConstants.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ZPKCommLoggerStackTest = RecorderFixture;

TEST_F(ZPKCommLoggerStackTest, ANewStackHasNeitherDelimiterNorLogsNorChain) {
  const auto fresh = ZPKCommLoggerStack::init();
  ASSERT_NE(fresh->aggregator(), nullptr);
  ASSERT_NE(fresh->aggregator()->data2Find(), nullptr);
  EXPECT_EQ(fresh->aggregator()->data2Find()->length(), 0U);
  EXPECT_EQ(fresh->logFilePath(), std::nullopt);
  EXPECT_EQ(fresh->preAggregatorLogFilePath(), std::nullopt);
  EXPECT_EQ(fresh->commChannel(), nullptr);
  EXPECT_EQ(fresh->isOpen(), 0);
}

TEST_F(ZPKCommLoggerStackTest, EveryPlainAccessorKeepsWhatWasSetEvenNull) {
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

TEST_F(ZPKCommLoggerStackTest, BothLogPathsAreStoredEvenIfNull) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->setLogFilePath("/a", std::nullopt, &error));
  EXPECT_EQ(stack->logFilePath(), "/a");
  EXPECT_EQ(stack->preAggregatorLogFilePath(), std::nullopt);
  EXPECT_TRUE(stack->setLogFilePath(std::nullopt, "", &error));
  EXPECT_EQ(stack->logFilePath(), std::nullopt);
  EXPECT_EQ(stack->preAggregatorLogFilePath(), "");
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommLoggerStackTest, ADelimiterIsStoredUnchanged) {
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

TEST_F(ZPKCommLoggerStackTest, WithADelimiterTheOuterLogHasUnits) {
  stack->setDelimiter(";");
  open();
  deliver("on");
  deliver("e;two;th");
  deliver("ree;");
  // A read returns one unit, so the thread has not processed all of them yet.
  ASSERT_TRUE(waitFor([&] { return textsOfLog(postPath).size() == 3; }));
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath),
              ElementsAre("pre---read: on", "pre---read: e;two;th", "pre---read: ree;"));
  EXPECT_THAT(textsOfLog(postPath),
              ElementsAre("post--read: one;", "post--read: two;", "post--read: three;"));
}

TEST_F(ZPKCommLoggerStackTest, ADelimiterSetWhileRunningAlsoSplitsHeldBytes) {
  stack->setDelimiter(";");
  open();
  deliver("one,two");
  ASSERT_TRUE(stack->setDelimiter(","));
  deliver("!,");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: one,", "post--read: two!,"));
}

TEST_F(ZPKCommLoggerStackTest, RemovingTheDelimiterWhileRunningReleasesHeldBytes) {
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

// Whatever the delimiter is at any moment, no byte is lost or duplicated.
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
  EXPECT_TRUE(base->waitUntilAllIsPassedOn());
  isOver = true;
  changer.join();
  stack->setDelimiter("");
  deliver("end");
  ASSERT_TRUE(stack->close());
  std::string logged;
  for (const LogFileLine& line : linesOfLog(postPath)) logged += line.text;
  EXPECT_EQ(logged, sent + "end");
}

TEST_F(ZPKCommLoggerStackTest, OnlyTheRawLogHasBytesHeldAtClose) {
  stack->setDelimiter(";");
  open();
  deliver("one;half");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre---read: one;half"));
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: one;"));
  EXPECT_EQ(stack->aggregator()->buffer()->length(), 0U);
}

TEST_F(ZPKCommLoggerStackTest, WithoutPathsEverythingIsReadAndDropped) {
  ASSERT_TRUE(stack->setLogFilePath(std::nullopt, std::nullopt));
  open();
  deliver("nobody hears this");
  ASSERT_TRUE(stack->close());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(ZPKCommLoggerStackTest, EitherLogWorksWithoutTheOther) {
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

TEST_F(ZPKCommLoggerStackTest, AfterALossCloseReportsTheErrorOfTheRead) {
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

TEST_F(ZPKCommLoggerStackTest, AfterALossOnlyANewChainClosesTheLogs) {
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

TEST_F(ZPKCommLoggerStackTest, AnOpenChannelIsReadAtOnceAndNotLogged) {
  base = WaitingChannel::makeOpen();
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  EXPECT_EQ(stack->isOpen(), 1);
  deliver("unlogged");
  EXPECT_TRUE(stack->close());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(ZPKCommLoggerStackTest, WithoutAnAggregatorTheChainRecordsUnsplitData) {
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

// There is nothing to reset where the aggregator should be, so the reset fails; everything else
// succeeds.
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

}  // namespace
