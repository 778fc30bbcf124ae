// What one read of the comm stack returns: delimiters, leftovers and time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"
#include "Support/TestClock.h"
#include "Support/TransportPeer.h"
#include "ZephalLogging.h"

using namespace support;

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ZPKCommStackReadTest : public testing::Test {
 protected:
  LogCapture log;
};

// --- Reading: delimiters and leftovers.

TEST_F(ZPKCommStackReadTest, AResponseKeepsItsDelimiterAndIsNotTrimmed) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  made.base->addRead(" \r\n answer \r\n> ");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, nullptr, &error)), " \r\n answer \r\n> ");
  made.base->addRead(kFormatText + std::string("> "));
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt, &error), kFormatText + std::string("> "));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackReadTest, AReadSendsNothing) {
  const ScriptedStack made;
  made.base->addRead("unasked> ");
  made->readDataWithTimeout(1, nullptr);
  EXPECT_THAT(made.base->calls(), ElementsAre("read"));
}

TEST_F(ZPKCommStackReadTest, TwoResponsesInOneChunkNeedOnlyOneReadBelow) {
  const ScriptedStack made;
  made.base->addRead("one> two> ");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "one> ");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "two> ");
  EXPECT_THAT(made.base->calls(), ElementsAre("read"));
}

TEST_F(ZPKCommStackReadTest, AResultIsNotChangedByLaterReads) {
  const ScriptedStack made;
  made.base->addRead("one> two> thr");
  const ZPKDataPtr first = made->readDataWithTimeout(1, nullptr);
  const ZPKDataPtr second = made->readDataWithTimeout(1, nullptr);
  made.base->addRead("ee> ");
  const ZPKDataPtr third = made->readDataWithTimeout(1, nullptr);
  made->close();
  EXPECT_EQ(bytesOf(first), "one> ");
  EXPECT_EQ(bytesOf(second), "two> ");
  EXPECT_EQ(bytesOf(third), "three> ");
}

TEST_F(ZPKCommStackReadTest, AResponseIsTheSameWhereverItsChunksAreSplit) {
  const std::string response = "line 1\nline 2\n=>=> ";
  for (size_t split = 0; split <= response.size(); ++split) {
    const ScriptedStack made;
    made->setDelimiter("=> ");
    made.base->addRead(response.substr(0, split));
    made.base->addRead(response.substr(split));
    EXPECT_EQ(made->readStringWithTimeout(30, std::nullopt), response) << "split at " << split;
  }
}

TEST_F(ZPKCommStackReadTest, ATricklingResponseIsReturnedWhole) {
  const ScriptedStack made;
  const std::string response = "slow and steady> ";
  for (const char byte : response) {
    made.base->addRead(ZPKData::data());
    made.base->addRead(std::string_view(&byte, 1));
  }
  EXPECT_EQ(made->sendCommandString("go", 30), response);
}

TEST_F(ZPKCommStackReadTest, HalfAResponseSurvivesATimeoutAndBeginsTheNext) {
  const ScriptedStack made;
  made.base->addRead("first ");
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(0, nullptr, &error), nullptr);
  EXPECT_EQ(codeOf(error), 305);
  made.base->addRead("half> ");
  EXPECT_EQ(made->readStringWithTimeout(0, std::nullopt), "first half> ");
}

TEST_F(ZPKCommStackReadTest, BytesAfterTheDelimiterBeginTheNextResponse) {
  const ScriptedStack made;
  made.base->addRead("one> tw");
  EXPECT_EQ(made->sendCommandString("1", 1), "one> ");
  made.base->addRead("o> ");
  EXPECT_EQ(made->sendCommandString("2", 1), "two> ");
}

TEST_F(ZPKCommStackReadTest, WithoutItsAggregatorAReadIgnoresItsOwnDelimiter) {
  const ScriptedStack made;
  made->setAggregator(nullptr);
  made.base->addRead("one#two> three");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, ZPKData::dataWithString("#"))), "one#two> ");
}

TEST_F(ZPKCommStackReadTest, ALateResponseAnswersTheNextCommand) {
  const ScriptedStack made;
  ZPKErrorPtr error;
  EXPECT_EQ(made->sendCommandString("first", 0, &error), std::nullopt);
  EXPECT_EQ(codeOf(error), 305);
  made.base->addRead("answer to first> ");
  made.base->addRead("answer to second> ");
  EXPECT_EQ(made->sendCommandString("second", 1), "answer to first> ");
  EXPECT_EQ(made->sendCommandString("third", 1), "answer to second> ");
  EXPECT_THAT(made.base->writes(), ElementsAre("first\n", "second\n", "third\n"));
}

TEST_F(ZPKCommStackReadTest, AHeldResponseAnswersACommandAtOnce) {
  const ScriptedStack made;
  made.base->addRead("one> two> ");
  made->readDataWithTimeout(1, nullptr);
  EXPECT_EQ(made->sendCommandString("ask", 0), "two> ");
  EXPECT_THAT(made.base->calls(), ElementsAre("read", "write"));
}

TEST_F(ZPKCommStackReadTest, AGoodCloseDropsHeldBytes) {
  const ScriptedStack made;
  made.base->addRead("one> two> ");
  made->readDataWithTimeout(1, nullptr);
  ASSERT_TRUE(made->close());
  ASSERT_TRUE(made->openWithTimeout(1));
  made.base->addRead("three> ");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "three> ");
}

TEST_F(ZPKCommStackReadTest, ANewDelimiterAlsoSplitsHeldBytes) {
  const ScriptedStack made;
  made.base->addRead("a> b# c> d");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "a> ");
  made->setDelimiter("#");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "b#");
  made->setDelimiter("d");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), " c> d");
  EXPECT_THAT(made.base->calls(), ElementsAre("read"));
}

TEST_F(ZPKCommStackReadTest, WithoutADelimiterAllBytesAreReturnedHeldOnesFirst) {
  const std::vector<std::optional<std::string_view>> none = {std::nullopt, ""};
  for (const auto& delimiter : none) {
    const ScriptedStack made;
    made.base->addRead("a> held ");
    EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "a> ");
    made->setDelimiter(delimiter);
    made.base->addRead("new> more");
    EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "held new> more");
    EXPECT_THAT(made.base->calls(), ElementsAre("read", "read"));
  }
}

// --- Reading with a different delimiter.

TEST_F(ZPKCommStackReadTest, ADifferentDelimiterAppliesToOneRead) {
  const ScriptedStack made;
  made.base->addRead("user: pass> ");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, dataOf(": "))), "user: ");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, nullptr)), "pass> ");
  made.base->addRead("login\u20AC rest> ");
  EXPECT_EQ(made->readStringWithTimeout(1, "\u20AC"), "login\u20AC");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), " rest> ");
}

TEST_F(ZPKCommStackReadTest, ADifferentDelimiterExtractsAUnitFromHeldBytes) {
  const ScriptedStack made;
  made.base->addRead("one> two: thr");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "one> ");
  EXPECT_EQ(made->readStringWithTimeout(1, ":"), "two:");
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), " thr");
  EXPECT_THAT(made.base->calls(), ElementsAre("read"));
}

TEST_F(ZPKCommStackReadTest, TheUsualDelimiterDoesNotSplitAReadWithAnother) {
  const ScriptedStack made;
  made.base->addRead("a> b# c> ");
  EXPECT_EQ(made->readStringWithTimeout(1, "#"), "a> b#");
}

TEST_F(ZPKCommStackReadTest, AnEmptyDelimiterLetsEverythingThroughAndIsRestored) {
  const ScriptedStack made;
  made.base->addRead("a> held");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "a> ");
  EXPECT_EQ(made->readStringWithTimeout(0, ""), "held");  // after one empty read below
  made.base->addRead("b> c");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, ZPKData::data())), "b> c");
  EXPECT_THAT(made.base->calls(), ElementsAre("read", "read", "read"));
  EXPECT_EQ(bytesOf(made->aggregator()->data2Find()), "> ");
}

TEST_F(ZPKCommStackReadTest, TheDelimiterIsRestoredHoweverTheReadEnds) {
  const ZPKDataPtr kept = dataOf("kept");
  const std::vector<std::function<void(ScriptedChannel&)>> devices = {
      [](ScriptedChannel& base) { base.addRead("answer#"); }, [](ScriptedChannel&) {},  // a timeout
      [](ScriptedChannel& base) { base.addFailedRead(errorFromBelow()); },
      [](ScriptedChannel& base) { base.addFailedRead(nullptr); },
      [](ScriptedChannel& base) { base.addRead("\xFF#"); }};
  for (const auto& prepare : devices) {
    for (const bool swapped : {false, true}) {
      const ScriptedStack made;
      made->aggregator()->setData2Find(kept);
      if (swapped) made->setEcidSwapInformation("swap");
      prepare(*made.base);
      made.base->setOnRead(
          [&](double) { EXPECT_EQ(bytesOf(made->aggregator()->data2Find()), "#"); });
      made->readStringWithTimeout(0, "#");
      EXPECT_THAT(made.base->calls(), ElementsAre("read"));
      EXPECT_EQ(made->aggregator()->data2Find(), kept);
    }
  }
}

TEST_F(ZPKCommStackReadTest, TheDelimiterIsRestoredBeforeAFailedReadIsReported) {
  for (const bool swapped : {false, true}) {
    const ScriptedStack made;
    if (swapped) made->setEcidSwapInformation("swap");
    std::vector<std::optional<std::string>> delimiters;
    ZPKLoggingSetSink([&](int, std::string_view) {
      delimiters.push_back(bytesOf(made->aggregator()->data2Find()));
    });
    EXPECT_EQ(made->readDataWithTimeout(0, dataOf("#")), nullptr);
    EXPECT_THAT(delimiters, ElementsAre("> "));
    ZPKLoggingSetSink(nullptr);
  }
}

TEST_F(ZPKCommStackReadTest, ANullUsualDelimiterIsRestoredToo) {
  const ScriptedStack made;
  made->setDelimiter(std::nullopt);
  made.base->addRead("a#b");
  EXPECT_EQ(made->readStringWithTimeout(1, "#"), "a#");
  EXPECT_EQ(made->aggregator()->data2Find(), nullptr);
}

TEST_F(ZPKCommStackReadTest, ANullDelimiterChangesNoDelimiter) {
  const ScriptedStack made;
  const ZPKDataPtr usual = made->aggregator()->data2Find();
  made.base->setOnRead([&](double) { EXPECT_EQ(made->aggregator()->data2Find(), usual); });
  made.base->addRead("a> ");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, nullptr)), "a> ");
}

TEST_F(ZPKCommStackReadTest, AReadOnAClosedStackLeavesTheDelimiterAlone) {
  const ScriptedStack made;
  made.base->setOpened(false);
  const ZPKDataPtr usual = made->aggregator()->data2Find();
  EXPECT_EQ(made->readDataWithTimeout(1, dataOf("#")), nullptr);
  EXPECT_EQ(made->aggregator()->data2Find(), usual);
}

TEST_F(ZPKCommStackReadTest, ADelimiterNeedNotBeText) {
  const ScriptedStack made;
  made.base->addRead(std::string_view("a\xFF\0b> ", 6));
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, dataOf(std::string_view("\xFF\0", 2)))),
            std::string("a\xFF\0", 3));
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, nullptr)), "b> ");
}

// --- Time.

TEST_F(ZPKCommStackReadTest, TheReadBelowGetsATenthOfAFiniteTimeout) {
  const std::vector<std::pair<std::optional<ZPKNumber>, double>> cases = {
      {0, 0.0}, {0.0, 0.0}, {5, 0.5}, {2.5, 0.25}, {-1, -1.0}, {std::nullopt, -1.0}, {-0.5, -0.05}};
  for (const auto& [timeout, slice] : cases) {
    const ScriptedStack made;
    made.base->addRead("a> b> ");
    EXPECT_EQ(made->readStringWithTimeout(timeout, std::nullopt), "a> ");
    made->readStringWithTimeout(timeout, std::nullopt);
    made.base->addRead("c> ");
    EXPECT_EQ(made->sendCommandString("ask", timeout), "c> ");
    EXPECT_THAT(made.base->readTimeouts(), ElementsAre(slice, slice));
  }
}

TEST_F(ZPKCommStackReadTest, ANegativeTimeoutReturnsAHeldUnit) {
  TransportPeer peer(TransportPeer::Kind::kAdopted);
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(peer.makeChannel()));
  ASSERT_TRUE(peer.open(stack->commChannel()));
  peer.send("one> two> ");
  EXPECT_EQ(stack->readStringWithTimeout(30, std::nullopt), "one> ");
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(stack->readStringWithTimeout(-0.5, std::nullopt, &error), "two> ");
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(stack->readStringWithTimeout(-0.5, std::nullopt, &error), std::nullopt);
  EXPECT_EQ(descriptionOf(error), "time out has an invalid value");
}

// The held bytes are returned together with those of the read below, however long that takes.
TEST_F(ZPKCommStackReadTest, ForeverWithAnEmptyDelimiterWaitsThoughBytesAreHeld) {
  const ScriptedStack made;
  made.base->addRead("held");
  ASSERT_EQ(made->readDataWithTimeout(0, nullptr), nullptr);
  made.base->addRead("new");
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(std::nullopt, dataOf(""))), "heldnew");
  EXPECT_THAT(made.base->readTimeouts(), ElementsAre(0.0, ZEPHAL_COMMUNICATION_TIME_FOREVER));
}

TEST_F(ZPKCommStackReadTest, ForeverOutlastsAnyNumberOfEmptyReads) {
  const std::vector<std::optional<ZPKNumber>> forever = {std::nullopt, -1};
  for (const auto& timeout : forever) {
    const ScriptedStack made;
    for (int i = 0; i < 1000; ++i) made.base->addRead(ZPKData::data());
    made.base->addRead("at last> ");
    EXPECT_EQ(made->readStringWithTimeout(timeout, std::nullopt), "at last> ");
    EXPECT_THAT(made.base->readTimeouts(), testing::AllOf(SizeIs(1001), Each(-1.0)));
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackReadTest, NowTriesExactlyOnce) {
  const ScriptedStack made;
  made.base->addRead("no prompt yet");
  made.base->addRead("> ");
  EXPECT_EQ(made->readDataWithTimeout(0, nullptr), nullptr);
  EXPECT_THAT(made.base->calls(), ElementsAre("read"));
}

TEST_F(ZPKCommStackReadTest, ATimeoutNeverExpiresEarly) {
  const ScriptedStack made;
  const auto start = std::chrono::system_clock::now();
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(0.02, nullptr, &error), nullptr);
  const auto passed = std::chrono::system_clock::now() - start;
  EXPECT_EQ(codeOf(error), 305);
  EXPECT_GE(passed, std::chrono::milliseconds(20));
  EXPECT_LT(passed, std::chrono::minutes(1));
}

TEST_F(ZPKCommStackReadTest, ATimeoutEndsAsSoonAsItsTimeHasPassed) {
  TestClock clock;
  const ScriptedStack made;
  made.base->setOnRead([&clock](double) { clock.advance(std::chrono::milliseconds(500)); });
  EXPECT_EQ(made->readDataWithTimeout(2, nullptr), nullptr);
  EXPECT_EQ(clock.passed(), std::chrono::seconds(2));
}

TEST_F(ZPKCommStackReadTest, ATimeoutErrorShowsTheCallersNumberUnchanged) {
  // Directly on the scripted channel, whose empty read is passed up whatever the timeout.
  const std::vector<std::pair<std::optional<ZPKNumber>, std::string>> cases = {
      {0, "0"},   {0.5, "0.5"}, {1, "1"},   {1.0, "1"},           {0.0, "0"},
      {-1, "-1"}, {-1.0, "-1"}, {30, "30"}, {std::nullopt, "-1"}, {0.25, "0.25"}};
  for (const auto& [timeout, text] : cases) {
    const ScriptedStack made;
    made->setCommChannel(made.base);
    log.clear();
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(made->readDataWithTimeout(timeout, nullptr, &error), nullptr);
    expectFailure(error, log,
                  commStackFailure(305, "Timed out trying to read after " + text + " sec",
                                   "readDataWithTimeout:delimiter:error:"));
    log.clear();
    EXPECT_EQ(made->sendCommandData(dataOf("ask"), timeout, &error), nullptr);
    expectFailure(
        error, log,
        commStackFailure(305,
                         "Timed out waiting for response for command 'ask' after " + text + " sec",
                         "sendCommandData:timeout:error:"));
  }
}

TEST_F(ZPKCommStackReadTest, TimeoutsThatAreNotExceptionsReturnEmptyResults) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  made->setTimeoutIsException(0, &error);
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(0, nullptr, &error)), "");
  EXPECT_EQ(made->readStringWithTimeout(0, std::nullopt, &error), "");
  EXPECT_EQ(made->readStringWithTimeout(0.01, "#", &error), "");
  EXPECT_EQ(bytesOf(made->sendCommandData(dataOf("ask"), 0, &error)), "");
  EXPECT_EQ(made->sendCommandString("ask", 0, &error), "");
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval("ask", 0, &error), "");
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackReadTest, TimeoutsThatAreNotExceptionsStillHoldHalfAResponse) {
  const ScriptedStack made;
  made->setTimeoutIsException(false);
  made.base->addRead("half");
  EXPECT_EQ(made->readStringWithTimeout(0, std::nullopt), "");
  made.base->addRead(" more> ");
  EXPECT_EQ(made->readStringWithTimeout(0, std::nullopt), "half more> ");
}

class Swallow final : public ZPKDataTransformer {
 public:
  void modifyData(ZPKMutableData* data) override { data->setLength(0); }
  bool reset(ZPKErrorPtr*) override { return true; }
};

TEST_F(ZPKCommStackReadTest, AResponseThatIsFilteredAwayTimesOutAtOnce) {
  const ScriptedStack made;
  made->setCommChannel(
      createChannelTransformer(made->commChannel(), {std::make_shared<Swallow>()}, {}));
  made.base->addRead("noise> ");
  ZPKErrorPtr error;
  EXPECT_EQ(made->sendCommandString("ask", -1, &error), std::nullopt);
  EXPECT_EQ(descriptionOf(error), "Timed out waiting for response for command 'ask' after -1 sec");
  EXPECT_THAT(made.base->calls(), ElementsAre("write", "read"));
}

}  // namespace
