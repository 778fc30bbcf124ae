// Writing, reading and commands of the comm stack, in bytes and in strings.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"
#include "Support/SocketPair.h"

using namespace support;

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ZPKCommStackTalkTest : public testing::Test {
 protected:
  LogCapture log;
};

// --- Writing.

TEST_F(ZPKCommStackTalkTest, AWriteIsSentWithTheLineTerminator) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(made->writeData(dataOf("one"), &error));
  EXPECT_TRUE(made->writeString("two", &error));
  EXPECT_TRUE(made->writeString("\u20AC", &error));
  EXPECT_TRUE(made->writeString(kFormatText, &error));
  EXPECT_TRUE(made->writeString(std::string_view("a\0b", 3), &error));
  EXPECT_THAT(made.base->writes(),
              ElementsAre("one\n", "two\n", "\xE2\x82\xAC\n", std::string(kFormatText) + "\n",
                          std::string("a\0b\n", 4)));
  EXPECT_THAT(made.base->calls(), Each("write"));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTalkTest, AnEmptyWriteSendsOnlyTheTerminator) {
  const ScriptedStack made;
  EXPECT_TRUE(made->writeData(ZPKData::data()));
  EXPECT_TRUE(made->writeString(""));
  made->setLineTerminator("");
  EXPECT_TRUE(made->writeString(""));
  EXPECT_THAT(made.base->writes(), ElementsAre("\n", "\n", ""));
}

TEST_F(ZPKCommStackTalkTest, ANullWriteFailsWithoutAnErrorAndSendsNothing) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(made->writeData(nullptr, &error));
  EXPECT_FALSE(made->writeString(std::nullopt, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(made.base->calls(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTalkTest, ANewTerminatorAppliesFromTheNextWriteOn) {
  const ScriptedStack made;
  made->writeString("a");
  made->setLineTerminator("\r\n");
  made->writeString("b");
  made->setLineTerminator(std::nullopt);
  made->writeString("c");
  made->setLineTerminator("");
  made->writeString("d");
  EXPECT_THAT(made.base->writes(), ElementsAre("a\n", "b\r\n", "c", "d"));
}

TEST_F(ZPKCommStackTalkTest, AWriteLeavesTheCallersDataUnchanged) {
  const ScriptedStack made;
  const ZPKMutableDataPtr data = ZPKMutableData::data();
  data->append(*dataOf("mine"));
  EXPECT_TRUE(made->writeData(data));
  EXPECT_EQ(data->view(), "mine");
}

TEST_F(ZPKCommStackTalkTest, AFailedWritePassesTheErrorUpAndLogsNothing) {
  const ScriptedStack made;
  made.base->setWriteResult(false, errorFromBelow());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(made->writeString("x", &error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_FALSE(made->writeString("x"));
  EXPECT_EQ(made->isOpen(), 1);
  EXPECT_THAT(log.lines(), IsEmpty());
}

// --- Failures from below.

TEST_F(ZPKCommStackTalkTest, AFailedReadPassesTheErrorUpAndLogsNothing) {
  for (const bool timeoutIsException : {true, false}) {
    log.clear();
    const ScriptedStack made;
    made->setTimeoutIsException(timeoutIsException);
    for (int i = 0; i < 4; ++i) made.base->addFailedRead(errorFromBelow(), false);
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
    EXPECT_EQ(error, errorFromBelow());
    error = olderError();
    EXPECT_EQ(made->sendCommandData(dataOf("ask"), 1, &error), nullptr);
    EXPECT_EQ(error, errorFromBelow());
    error = olderError();
    EXPECT_EQ(made->readStringWithTimeout(1, "#", &error), std::nullopt);
    EXPECT_EQ(error, errorFromBelow());
    EXPECT_EQ(made->sendCommandString("ask", 1), std::nullopt);
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

TEST_F(ZPKCommStackTalkTest, AFailedReadKeepsHeldBytesAndClosesTheStack) {
  const ScriptedStack made;
  made.base->addRead("half");
  made.base->addFailedRead(errorFromBelow());
  EXPECT_EQ(made->readDataWithTimeout(1, nullptr), nullptr);
  EXPECT_EQ(made->isOpen(), 0);
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "half");
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
  EXPECT_EQ(codeOf(error), 304);
}

TEST_F(ZPKCommStackTalkTest, ACleanCloseDuringAReadGivesNullWithoutError) {
  const ScriptedStack made;
  made.base->addRead(ZPKData::data());
  made.base->setOnRead([&](double) { made.base->setOpened(false); });
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(made->readDataWithTimeout(30, nullptr, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  made.base->setOpened(true);
  error = olderError();
  EXPECT_EQ(made->sendCommandString("ask", 30, &error), std::nullopt);
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTalkTest, TheTransportRejectsABadTimeoutAndStaysOpen) {
  SocketPair pair;
  const auto stack = ZPKCommStack::init();
  const ZPKDataChannelPtr base = createActiveTCPChannelWithSocket(pair.takeOurs());
  ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  log.clear();
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(stack->sendCommandString("ask", -0.5, &error), std::nullopt);
  expectFailure(error, log,
                {"zephal-communication", 3, "time out has an invalid value", "readWithTimeout",
                 "DescriptorOperation.h"});
  EXPECT_EQ(stack->isOpen(), 1);
}

// --- Commands.

TEST_F(ZPKCommStackTalkTest, ACommandIsWrittenAndThenItsResponseRead) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  made.base->addRead("1.0> ");
  EXPECT_EQ(bytesOf(made->sendCommandData(dataOf("version"), 1, &error)), "1.0> ");
  made.base->addRead("\u20AC> ");
  EXPECT_EQ(made->sendCommandString("\u00E9", 1, &error), "\u20AC> ");
  EXPECT_THAT(made.base->writes(), ElementsAre("version\n", "\u00E9\n"));
  EXPECT_THAT(made.base->calls(), ElementsAre("write", "read", "write", "read"));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTalkTest, ANullCommandFailsWithoutAnErrorAndReadsNothing) {
  const ScriptedStack made;
  made.base->addRead("unasked> ");
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(made->sendCommandData(nullptr, 1, &error), nullptr);
  EXPECT_EQ(made->sendCommandString(std::nullopt, 1, &error), std::nullopt);
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval(std::nullopt, 1, &error), std::nullopt);
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval(std::nullopt, ZPKRegex::initWithPattern("a"), 1,
                                                   &error),
            std::nullopt);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(made.base->calls(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTalkTest, AnEmptyCommandSendsOnlyTheTerminator) {
  const ScriptedStack made;
  made.base->addRead("> ");
  EXPECT_EQ(made->sendCommandString("", 1), "> ");
  EXPECT_THAT(made.base->writes(), ElementsAre("\n"));
}

TEST_F(ZPKCommStackTalkTest, ACommandThatCannotBeWrittenHasNoResponse) {
  const ScriptedStack made;
  made.base->setWriteResult(false, errorFromBelow());
  made.base->addRead("unasked> ");
  made->setEcidSwapInformation("a swap");  // only a read reports it
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(made->sendCommandData(dataOf("ask"), 1, &error), nullptr);
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_EQ(made->sendCommandString("ask", 1), std::nullopt);
  EXPECT_THAT(made.base->calls(), ElementsAre("write", "write"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackTalkTest, ATimeoutNamesTheCommandWithoutItsTerminator) {
  const std::vector<std::pair<std::string, std::string>> cases = {{"", ""},
                                                                  {"\u20AC", "\u20AC"},
                                                                  {kFormatText, kFormatText},
                                                                  {"ok\xFF\xFE!", "ok<fffe>!"},
                                                                  {"two\nlines", "two\nlines"}};
  for (const auto& [command, shown] : cases) {
    const ScriptedStack made;
    log.clear();
    ZPKErrorPtr error;
    EXPECT_EQ(made->sendCommandData(dataOf(command), 0, &error), nullptr);
    expectFailure(error, log,
                  commStackFailure(
                      305, "Timed out waiting for response for command '" + shown + "' after 0 sec",
                      "sendCommandData:timeout:error:"));
  }
}

TEST_F(ZPKCommStackTalkTest, ACommandsResponseEndsAtTheCurrentDelimiter) {
  const ScriptedStack made;
  made.base->addRead("a> b# ");
  made->setDelimiter("#");
  EXPECT_EQ(made->sendCommandString("ask", 1), "a> b#");
}

// --- Text.

TEST_F(ZPKCommStackTalkTest, InvalidTextFailsTheStringFormAndIsLost) {
  const std::vector<std::string> responses = {"\xFF> ", "\xC3> ", "\xC0\x80> ", "\xED\xA0\x80> "};
  for (const std::string& response : responses) {
    const ScriptedStack made;
    made.base->addRead(response);
    made.base->addRead(response + "next> ");
    EXPECT_EQ(bytesOf(made->readDataWithTimeout(1, nullptr)), response);
    ZPKErrorPtr error;
    EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt, &error), std::nullopt);
    EXPECT_EQ(codeOf(error), 306);
    EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "next> ");
    EXPECT_EQ(made->isOpen(), 1);
  }
}

TEST_F(ZPKCommStackTalkTest, ADelimiterInsideACharacterMakesBothHalvesInvalidText) {
  const ScriptedStack made;
  made->aggregator()->setData2Find(dataOf("\xE2"));
  made.base->addRead("a\u20AC");
  ZPKErrorPtr error;
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt, &error), std::nullopt);
  EXPECT_EQ(codeOf(error), 306);
  made->setDelimiter(std::nullopt);
  EXPECT_EQ(bytesOf(made->readDataWithTimeout(0, nullptr)), "\x82\xAC");
}

TEST_F(ZPKCommStackTalkTest, NulBytesAreTextLikeAnyOther) {
  const ScriptedStack made;
  const std::string response("a\0b\0> ", 6);
  made.base->addRead(response);
  EXPECT_EQ(made->sendCommandString(std::string_view("c\0d", 3), 1), response);
  EXPECT_THAT(made.base->writes(), ElementsAre(std::string("c\0d\n", 4)));
}

}  // namespace
