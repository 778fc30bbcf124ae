// The optional layers of a comm stack: filters, logs and the background reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <utility>
#include <vector>

#include "Data Stack/ZPKCommStack.h"
#include "Support/EventWait.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/ScriptedStack.h"
#include "Support/ScriptedTransformer.h"
#include "Support/TemporaryFolder.h"
#include "Support/WaitingChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kFiltersRefused =
    "Cannot update read filters hex while uart stack is already created";

/// A stack that is not created yet, on a scripted channel.
class ZPKCommStackLayersTest : public testing::Test {
 protected:
  void create() {
    base->setOpened(false);
    ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  }
  void open() {
    create();
    ASSERT_TRUE(stack->openWithTimeout(1));
  }

  TemporaryFolder folder;
  const std::string postPath = folder.pathOf("post.log");
  const std::string prePath = folder.pathOf("pre.log");
  std::shared_ptr<ScriptedChannel> base = ScriptedChannel::make();
  ZPKCommStackPtr stack = ZPKCommStack::init();
};

TEST_F(ZPKCommStackLayersTest, FiltersAreNullUntilSetAndEmptyOnceCleared) {
  EXPECT_EQ(stack->readFilterTransformers(), std::nullopt);
  EXPECT_EQ(stack->readFilterHexTransformers(), std::nullopt);
  ASSERT_TRUE(stack->setReadFilters({"a", "b"}));
  ASSERT_TRUE(stack->setReadFiltersHex({"00"}));
  EXPECT_EQ(stack->readFilterTransformers()->size(), 2U);
  EXPECT_EQ(stack->readFilterHexTransformers()->size(), 1U);
  ASSERT_TRUE(stack->setReadFilters({}));
  ASSERT_TRUE(stack->setReadFiltersHex({}));
  EXPECT_THAT(*stack->readFilterTransformers(), IsEmpty());
  EXPECT_THAT(*stack->readFilterHexTransformers(), IsEmpty());
}

TEST_F(ZPKCommStackLayersTest, AnAcceptedSettingLeavesTheSlotAlone) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->setReadFilters({"a"}, &error));
  EXPECT_TRUE(stack->setReadFiltersHex({"41"}, &error));
  EXPECT_TRUE(stack->setLogFilePath(postPath, prePath, &error));
  EXPECT_TRUE(stack->setActiveChannelOnOff(1, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLayersTest, ANewListReplacesTheOldOneOfItsKind) {
  ASSERT_TRUE(stack->setReadFilters({"a", "b"}));
  const ZPKDataTransformerArray old = *stack->readFilterTransformers();
  ASSERT_TRUE(stack->setReadFiltersHex({"63"}));
  ASSERT_TRUE(stack->setReadFilters({"a"}));
  ASSERT_EQ(stack->readFilterTransformers()->size(), 1U);
  EXPECT_NE(stack->readFilterTransformers()->front(), old.front());
  open();
  base->addRead("abc> ");
  EXPECT_EQ(stack->readStringWithTimeout(1, std::nullopt), "b> ");
}

TEST_F(ZPKCommStackLayersTest, AFilterSeesAWholeResponseOnceHoweverItArrives) {
  const auto filter = ScriptedTransformer::make();
  stack->setReadFilterTransformers(ZPKDataTransformerArray{filter});
  open();
  for (const char* bytes : {"", "2.", "", "33", "> "}) base->addRead(bytes);
  EXPECT_EQ(stack->readStringWithTimeout(1000, std::nullopt), "2.33> ");
  EXPECT_THAT(filter->chunks(), ElementsAre("2.33> "));
}

TEST_F(ZPKCommStackLayersTest, LogPathsAreStoredAndEmptyIsNotNull) {
  ASSERT_TRUE(stack->setLogFilePath("/a", "/b"));
  EXPECT_EQ(stack->logFilePath(), "/a");
  EXPECT_EQ(stack->preAggregatorLogFilePath(), "/b");
  ASSERT_TRUE(stack->setLogFilePath(std::nullopt, ""));
  EXPECT_EQ(stack->logFilePath(), std::nullopt);
  EXPECT_EQ(stack->preAggregatorLogFilePath(), "");
}

TEST_F(ZPKCommStackLayersTest, FilteredBytesAreRemovedAnywhereInAResponse) {
  ASSERT_TRUE(stack->setReadFilters({"noise"}));
  ASSERT_TRUE(stack->setReadFiltersHex({"0x0d", "1B5b6D"}));
  open();
  base->addRead("no\rnoiseise 1\x1B[m2noise> ");
  EXPECT_EQ(stack->readStringWithTimeout(1, std::nullopt), "noise 12> ");
}

TEST_F(ZPKCommStackLayersTest, HexFiltersRunBeforeTextFiltersInListOrder) {
  ASSERT_TRUE(stack->setReadFilters({"ad", "be"}));
  ASSERT_TRUE(stack->setReadFiltersHex({"62", "63"}));
  open();
  // Without b and c: "aade> ", then without "ad": "ae> "; "be" no longer matches, since b is gone.
  base->addRead("abacdbe> ");
  EXPECT_EQ(stack->readStringWithTimeout(1, std::nullopt), "ae> ");
}

TEST_F(ZPKCommStackLayersTest, AFullyFilteredResponseFailsWithCode305AtOnce) {
  ASSERT_TRUE(stack->setReadFilters({"gone> "}));
  open();
  base->addRead("gone> ");
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(stack->readStringWithTimeout(1000, std::nullopt, &error), std::nullopt);
  EXPECT_EQ(error->code(), 305);
  EXPECT_EQ(base->readTimeouts().size(), 1U);
}

TEST_F(ZPKCommStackLayersTest, TheSwapDetectorSeesAResponseBeforeTheFilters) {
  ASSERT_TRUE(stack->enableECIDSwapDetectionWithECID(1));
  ASSERT_TRUE(stack->setReadFilters({"[00000000:00000002] :-) "}));
  stack->setDelimiter(":-) ");
  open();
  base->addRead("[00000000:00000002] :-) ");
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(stack->readDataWithTimeout(1, nullptr, &error), nullptr);
  EXPECT_EQ(error->code(), 309);
}

TEST_F(ZPKCommStackLayersTest, ABadHexFilterLogsAndKeepsTheOldList) {
  ASSERT_TRUE(stack->setReadFiltersHex({"41"}));
  const auto before = *stack->readFilterHexTransformers();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->setReadFiltersHex({"42", "not hex"}, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(*stack->readFilterHexTransformers(), before);
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.count("Invalid characters present in the input hex string [not hex]!"), 1U);
  EXPECT_FALSE(stack->setReadFiltersHex({"not hex"}));
  EXPECT_EQ(log.lines().size(), 4U);
}

TEST_F(ZPKCommStackLayersTest, AFailureBeforeAnyListLeavesTheListNull) {
  LogCapture log;
  EXPECT_FALSE(stack->setReadFiltersHex({"41", "4 1"}));
  EXPECT_FALSE(stack->setReadFilters({"a", ""}));
  EXPECT_EQ(stack->readFilterHexTransformers(), std::nullopt);
  EXPECT_EQ(stack->readFilterTransformers(), std::nullopt);
  EXPECT_EQ(log.count("pattern cannot be nil, or empty"), 1U);
}

TEST_F(ZPKCommStackLayersTest, AnEmptyFilterFailsAndKeepsTheOldList) {
  ASSERT_TRUE(stack->setReadFilters({"a"}));
  ASSERT_TRUE(stack->setReadFiltersHex({"41"}));
  const auto before = *stack->readFilterTransformers();
  const auto beforeHex = *stack->readFilterHexTransformers();
  const ExpectedFailure expected{"zephal-communication", 3, "pattern cannot be nil, or empty",
                                 "createFilteringTransformer", "ZPKDataTransformer.cpp"};
  {
    LogCapture log;
    ZPKErrorPtr error;
    EXPECT_FALSE(stack->setReadFilters({"b", ""}, &error));
    expectFailure(error, log, expected);
  }
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->setReadFiltersHex({""}, &error));
  expectFailure(error, log, expected);
  EXPECT_EQ(*stack->readFilterTransformers(), before);
  EXPECT_EQ(*stack->readFilterHexTransformers(), beforeHex);
}

TEST_F(ZPKCommStackLayersTest, SettingsFailWithCode302OnceCreatedAndAfterClose) {
  const auto refuseAll = [&] {
    const auto refuses = [&](auto set, const char* message, const char* operation) {
      LogCapture log;
      ZPKErrorPtr error;
      EXPECT_FALSE(set(&error));
      expectFailure(error, log, commStackFailure(302, message, operation));
      log.clear();
      EXPECT_FALSE(set(nullptr));
      EXPECT_THAT(log.texts(), ElementsAre(message));
    };
    refuses([&](ZPKErrorPtr* error) { return stack->setReadFiltersHex({"41"}, error); },
            kFiltersRefused, "setReadFiltersHex:error:");
    refuses([&](ZPKErrorPtr* error) { return stack->setReadFilters({"a"}, error); },
            kFiltersRefused, "setReadFilters:error:");
    refuses([&](ZPKErrorPtr* error) { return stack->setLogFilePath("a", "b", error); },
            "Cannot enable log file while comm stack is already created/opened",
            "setLogFilePath:preAggregatorLogFilePath:error:");
    refuses([&](ZPKErrorPtr* error) { return stack->setActiveChannelOnOff(1, error); },
            "Cannot change active channel on/off when comm stack is already created/opened",
            "setActiveChannelOnOff:error:");
    EXPECT_EQ(stack->readFilterTransformers(), std::nullopt);
    EXPECT_EQ(stack->readFilterHexTransformers(), std::nullopt);
    EXPECT_EQ(stack->logFilePath(), std::nullopt);
    EXPECT_EQ(stack->preAggregatorLogFilePath(), std::nullopt);
    EXPECT_FALSE(stack->activeChannelOnOff());
  };
  create();
  refuseAll();
  ASSERT_TRUE(stack->openWithTimeout(1));
  refuseAll();
  ASSERT_TRUE(stack->close());
  refuseAll();
}

TEST_F(ZPKCommStackLayersTest, TheBackgroundReaderFollowsTheNumbersBoolValue) {
  const std::vector<std::pair<ZPKNumber, bool>> cases = {{1, true},    {0, false}, {0.5, true},
                                                         {0.0, false}, {-1, true}, {false, false}};
  for (const auto& [number, expected] : cases) {
    EXPECT_TRUE(stack->setActiveChannelOnOff(number, nullptr));
    EXPECT_EQ(stack->activeChannelOnOff(), expected) << number.stringValue();
  }
}

TEST_F(ZPKCommStackLayersTest, ANullNumberTurnsTheBackgroundReaderOff) {
  ASSERT_TRUE(stack->setActiveChannelOnOff(1, nullptr));
  EXPECT_TRUE(stack->activeChannelOnOff());
  ZPKErrorPtr error = olderError();
  ASSERT_TRUE(stack->setActiveChannelOnOff(std::nullopt, &error));
  EXPECT_FALSE(stack->activeChannelOnOff());
  EXPECT_EQ(error, olderError());
}

TEST_F(ZPKCommStackLayersTest, TheTwoLogsShowTheConversationAndTheWire) {
  ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  ASSERT_TRUE(stack->setReadFilters({"#"}));
  open();
  base->addRead("2.3");
  base->addRead("3#> rest");
  EXPECT_EQ(stack->sendCommandString("version", 1), "2.33> ");
  ASSERT_TRUE(stack->close());
  // On the wire the command ends in a line feed, which begins a new line in the log.
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre--write: version", "pre--write: ",
                                               "pre---read: 2.3", "pre---read: 3#> rest"));
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post-write: version", "post--read: 2.33> "));
}

TEST_F(ZPKCommStackLayersTest, WithOnePathNullOnlyTheOtherLogExists) {
  ASSERT_TRUE(stack->setLogFilePath(postPath, std::nullopt));
  open();
  base->addRead("> ");
  EXPECT_EQ(stack->sendCommandString("a", 1), "> ");
  ASSERT_TRUE(stack->close());
  EXPECT_TRUE(std::filesystem::exists(postPath));
  EXPECT_FALSE(std::filesystem::exists(prePath));
}

TEST_F(ZPKCommStackLayersTest, BothLogsMayBeOneFile) {
  ASSERT_TRUE(stack->setLogFilePath(postPath, postPath));
  stack->setLineTerminator(std::nullopt);
  open();
  base->addRead("> ");
  EXPECT_EQ(stack->sendCommandString("a", 1), "> ");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath),
              testing::UnorderedElementsAre("post-write: a", "pre--write: a", "pre---read: > ",
                                            "post--read: > "));
}

TEST_F(ZPKCommStackLayersTest, AFailedLogFailsTheOpenAboveTheTransport) {
  ASSERT_TRUE(stack->setLogFilePath(folder.pathOf("missing/post.log"), std::nullopt));
  create();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->openWithTimeout(1, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(base->calls(), IsEmpty());
}

TEST_F(ZPKCommStackLayersTest, AStackOnAnAlreadyOpenChannelWritesNoLog) {
  ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  base->addRead("> ");
  EXPECT_EQ(stack->sendCommandString("a", 1), "> ");
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommStackLayersTest, TheLogsWorkAfterAFailedOpenOfTheTransport) {
  ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  base->setOpenResult(false, errorFromBelow());
  create();
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->openWithTimeout(1, &error));
  EXPECT_EQ(error, errorFromBelow());
  base->setOpenResult(true);
  ASSERT_TRUE(stack->openWithTimeout(1));
  base->addRead("> ");
  EXPECT_EQ(stack->sendCommandString("a", 1), "> ");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post-write: a", "post--read: > "));
}

TEST_F(ZPKCommStackLayersTest, AFailedOpenLeavesBothLogsOpenUntilTheNext) {
  const std::set<int> before = openDescriptors();
  ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  base->setOpenResult(false, errorFromBelow());
  create();
  ASSERT_FALSE(stack->openWithTimeout(1));
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);
  ASSERT_FALSE(stack->openWithTimeout(1));
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);
}

TEST_F(ZPKCommStackLayersTest, TheOuterLogStaysOpenIfTheRawLogFails) {
  const std::set<int> before = openDescriptors();
  ASSERT_TRUE(stack->setLogFilePath(postPath, folder.pathOf("missing/pre.log")));
  create();
  LogCapture log;
  EXPECT_FALSE(stack->openWithTimeout(1));
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(std::filesystem::exists(postPath));
  EXPECT_EQ(openDescriptors().size(), before.size() + 1);
  EXPECT_THAT(base->calls(), IsEmpty());
}

TEST_F(ZPKCommStackLayersTest, CloseAfterAFailedOpenClosesLogsButResetsNothing) {
  const std::set<int> before = openDescriptors();
  ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  ASSERT_TRUE(stack->createStackWithURL("unix:///nowhere/at/all"));
  stack->aggregator()->buffer()->append(*dataOf("held"));
  ASSERT_FALSE(stack->openWithTimeout(1));
  ASSERT_EQ(openDescriptors().size(), before.size() + 2);
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "held");
}

TEST_F(ZPKCommStackLayersTest, AFailedOpenStartsNoBackgroundReaderAndCloseFails) {
  const auto device = WaitingChannel::make();
  device->setOpenResult(false, errorFromBelow());
  ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  ASSERT_TRUE(stack->setActiveChannelOnOff(1, nullptr));
  ASSERT_TRUE(stack->createStackWithBaseChannel(device));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->openWithTimeout(1, &error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_EQ(stack->isOpen(), 0);
  LogCapture log;
  EXPECT_FALSE(stack->close(&error));
  expectFailure(error, log,
                {"zephal-communication", 2, "Device Already Closed", "-[ZPIActiveChannel close:]",
                 "ZPIActiveChannel.cpp"});
  EXPECT_EQ(device->reads(), 0U);
  EXPECT_EQ(device->count("close"), 0U);
  EXPECT_EQ(device->count("reset"), 0U);
}

TEST_F(ZPKCommStackLayersTest, TheBackgroundReaderDrainsTheDeviceWhileNobodyReads) {
  auto device = WaitingChannel::make();
  ASSERT_TRUE(stack->setActiveChannelOnOff(true, nullptr));
  ASSERT_TRUE(stack->createStackWithBaseChannel(device));
  ASSERT_TRUE(stack->openWithTimeout(1));
  device->deliver("one> tw");
  device->deliver("o> ");
  ASSERT_TRUE(device->waitUntilAllIsPassedOn());
  EXPECT_EQ(stack->readStringWithTimeout(10, std::nullopt), "one> ");
  EXPECT_EQ(stack->readStringWithTimeout(10, std::nullopt), "two> ");
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommStackLayersTest, TheRawLogIsBelowTheBackgroundReader) {
  auto device = WaitingChannel::make();
  ASSERT_TRUE(stack->setLogFilePath(std::nullopt, prePath));
  ASSERT_TRUE(stack->setActiveChannelOnOff(true, nullptr));
  ASSERT_TRUE(stack->createStackWithBaseChannel(device));
  ASSERT_TRUE(stack->openWithTimeout(1));
  device->deliver("unread");
  ASSERT_TRUE(device->waitUntilAllIsPassedOn());
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre---read: unread"));
}

TEST_F(ZPKCommStackLayersTest, OnAnOpenChannelTheBackgroundReaderStartsAtCreate) {
  auto device = WaitingChannel::makeOpen();
  ASSERT_TRUE(stack->setActiveChannelOnOff(true, nullptr));
  ASSERT_TRUE(stack->createStackWithBaseChannel(device));
  EXPECT_EQ(stack->isOpen(), 1);
  device->deliver("> ");
  EXPECT_EQ(stack->readStringWithTimeout(10, std::nullopt), "> ");
  EXPECT_TRUE(stack->close());
}

TEST_F(ZPKCommStackLayersTest, AReaderThatFailsLeavesTheStackClosed) {
  auto device = WaitingChannel::make();
  ASSERT_TRUE(stack->setActiveChannelOnOff(true, nullptr));
  ASSERT_TRUE(stack->createStackWithBaseChannel(device));
  ASSERT_TRUE(stack->openWithTimeout(1));
  device->fail(errorFromBelow());
  ASSERT_TRUE(waitFor([&] { return stack->isOpen() == 0; }));
  LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(stack->readStringWithTimeout(0, std::nullopt, &error), std::nullopt);
  EXPECT_EQ(error->code(), 304);
}

TEST_F(ZPKCommStackLayersTest, TheBackgroundReaderDropsUnreadDataAtCloseAndReopens) {
  const auto device = WaitingChannel::make();
  ASSERT_TRUE(stack->setActiveChannelOnOff(1, nullptr));
  ASSERT_TRUE(stack->createStackWithBaseChannel(device));
  ASSERT_TRUE(stack->openWithTimeout(1));
  device->deliver("one> half");
  EXPECT_EQ(stack->readStringWithTimeout(10, std::nullopt), "one> ");
  device->deliver("unread> ");
  ASSERT_TRUE(device->waitUntilAllIsPassedOn());
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(device->count("reset"), 1U);
  ASSERT_TRUE(stack->openWithTimeout(1));
  device->deliver("two> ");
  EXPECT_EQ(stack->sendCommandString("ask", 10), "two> ");
  EXPECT_THAT(device->writes(), ElementsAre("ask\n"));
  EXPECT_TRUE(stack->close());
}

}  // namespace
