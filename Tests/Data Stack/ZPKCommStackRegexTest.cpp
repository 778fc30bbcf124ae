// Commands to devices that echo, and the part of a response that a regular expression picks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::optional<std::string> withoutEcho(const std::string& response,
                                       std::optional<std::string_view> terminator,
                                       std::string_view command) {
  const ScriptedStack made;
  made->setLineTerminator(terminator);
  made.base->addRead(response);
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const auto result = made->sendCommandStringWithEchoRemoval(command, 1, &error);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  return result;
}

// What `pattern` picks from `response` after the echo of "ask\n" is removed.
std::optional<std::string> picked(const std::string& response, const char* pattern,
                                  ZPKErrorPtr* error = nullptr) {
  const ScriptedStack made;
  made.base->addRead(response);
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern(pattern);
  EXPECT_NE(regex, nullptr) << pattern;
  return made->sendCommandStringWithEchoRemoval("ask", regex, 1, error);
}

class ZPKCommStackRegexTest : public testing::Test {
 protected:
  LogCapture log;
};

// --- Echo removal.

TEST_F(ZPKCommStackRegexTest, TheEchoAndItsTerminatorAreRemoved) {
  EXPECT_EQ(withoutEcho("ask\nanswer\n> ", "\n", "ask"), "answer\n> ");
}

TEST_F(ZPKCommStackRegexTest, AnEchoInTheMiddleOrTheEndIsRemoved) {
  EXPECT_EQ(withoutEcho("noise ask\nanswer\n> ", "\n", "ask"), "noise answer\n> ");
  EXPECT_EQ(withoutEcho("answer > ", "> ", "answer "), "");
}

TEST_F(ZPKCommStackRegexTest, OnlyTheFirstEchoIsRemoved) {
  EXPECT_EQ(withoutEcho("ask\nask\nanswer\nask\n> ", "\n", "ask"), "ask\nanswer\nask\n> ");
}

TEST_F(ZPKCommStackRegexTest, AnEchoThatARemovalFormsStays) {
  EXPECT_EQ(withoutEcho("asask\nk\n> ", "\n", "ask"), "ask\n> ");
}

TEST_F(ZPKCommStackRegexTest, AnEchoWithADifferentLineTerminatorStays) {
  EXPECT_EQ(withoutEcho("ask\r\nanswer\n> ", "\n", "ask"), "ask\r\nanswer\n> ");
  EXPECT_EQ(withoutEcho("ASK\nanswer\n> ", "\n", "ask"), "ASK\nanswer\n> ");
}

TEST_F(ZPKCommStackRegexTest, WithoutATerminatorTheBareCommandIsTheEcho) {
  EXPECT_EQ(withoutEcho("ask\nanswer\n> ", std::nullopt, "ask"), "\nanswer\n> ");
  EXPECT_EQ(withoutEcho("ask\nanswer\n> ", "", "ask"), "\nanswer\n> ");
}

TEST_F(ZPKCommStackRegexTest, TheEchoOfAnEmptyCommandIsTheTerminator) {
  EXPECT_EQ(withoutEcho("a\nb\n> ", "\n", ""), "ab\n> ");
  EXPECT_EQ(withoutEcho("a\nb\n> ", std::nullopt, ""), "a\nb\n> ");
}

TEST_F(ZPKCommStackRegexTest, TheEchoIsPlainTextNotAPattern) {
  EXPECT_EQ(withoutEcho("a.*b\nxx\n> ", "\n", "a.*b"), "xx\n> ");
  EXPECT_EQ(withoutEcho("axxb\nxx\n> ", "\n", "a.*b"), "axxb\nxx\n> ");
  EXPECT_EQ(withoutEcho("%s%n%@\n100%\n> ", "\n", "%s%n%@"), "100%\n> ");
}

TEST_F(ZPKCommStackRegexTest, TheEchoMayContainMultibyteCharactersAndNulBytes) {
  EXPECT_EQ(withoutEcho("\u20ACsk\u00E9\n\u20AC> ", "\u00E9\n", "\u20ACsk"), "\u20AC> ");
  EXPECT_EQ(withoutEcho(std::string("a\0b\nc> ", 7), "\n", std::string_view("a\0b", 3)), "c> ");
}

TEST_F(ZPKCommStackRegexTest, TheTerminatorOfTheEchoIsReadAfterTheResponse) {
  const ScriptedStack made;
  made.base->addRead("ask\ranswer> ");
  made.base->setOnRead([&](double) { made->appender()->setDataToAppend(dataOf("\r")); });
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval("ask", 1), "answer> ");
  EXPECT_THAT(made.base->writes(), ElementsAre("ask\n"));
}

TEST_F(ZPKCommStackRegexTest, WithoutATextualTerminatorTheBareCommandIsTheEcho) {
  const ScriptedStack made;
  made->appender()->setDataToAppend(dataOf("\xFF"));
  made.base->addRead("ask answer> ");
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval("ask", 1), " answer> ");
  made->setAppender(nullptr);
  made.base->addRead("ask answer> ");
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval("ask", 1), " answer> ");
}

// --- Picking a part.

TEST_F(ZPKCommStackRegexTest, AGroupGivesItsText) {
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(picked("ask\nversion 1.25 ok\n> ", "version (\\d+\\.\\d+)", &error), "1.25");
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackRegexTest, TheFirstOfSeveralGroupsCounts) {
  EXPECT_EQ(picked("a=1 b=2> ", "a=(\\d) b=(\\d)"), "1");
  EXPECT_EQ(picked("a=1> ", "((a)=(1))"), "a=1");
}

TEST_F(ZPKCommStackRegexTest, TheFirstOfSeveralMatchesCounts) {
  EXPECT_EQ(picked("v1 v2 v3> ", "v(\\d)"), "1");
}

TEST_F(ZPKCommStackRegexTest, WithoutAGroupTheWholeMatchIsPicked) {
  EXPECT_EQ(picked("v12> ", "\\d+"), "12");
  EXPECT_EQ(picked("v12> ", "(?:v)\\d+"), "v12");
}

TEST_F(ZPKCommStackRegexTest, AGroupThatDidNotMatchGivesTheWholeMatch) {
  EXPECT_EQ(picked("state idle> ", "state (?:on(\\d)|idle)"), "state idle");
  EXPECT_EQ(picked("b7> ", "a(\\d)|b(\\d)"), "b7");
}

TEST_F(ZPKCommStackRegexTest, AnEmptyGroupGivesEmptyTextNotTheWholeMatch) {
  EXPECT_EQ(picked("name: > ", "name:(\\w*)"), "");
  EXPECT_EQ(picked("\u20AC> ", "$()"), "");
}

TEST_F(ZPKCommStackRegexTest, AMatchMaySpanLinesAndIncludeThePrompt) {
  EXPECT_EQ(picked("ask\none\ntwo\n> ", "(?s)one(.*)"), "\ntwo\n> ");
  EXPECT_EQ(picked("ask\none\ntwo\n> ", "(?m)^(t.*)$"), "two");
}

TEST_F(ZPKCommStackRegexTest, TheEchoIsRemovedBeforeTheSearch) {
  EXPECT_EQ(picked("ask\nanswer\n> ", "^(\\w+)"), "answer");
  EXPECT_EQ(picked("ask\nanswer\n> ", "ask"), std::nullopt);
}

TEST_F(ZPKCommStackRegexTest, MultibyteCharactersAroundTheMatchDoNotShiftIt) {
  // One, two, three and four bytes before, in and after the match.
  const std::vector<std::string> characters = {"a", "\u00E9", "\u20AC", "\U0001F600"};
  for (const std::string& before : characters) {
    for (const std::string& in : characters) {
      for (const std::string& after : characters) {
        const std::string response = before + before + "[" + in + "x" + in + "]" + after + "> ";
        EXPECT_EQ(picked(response, "\\[(.*)\\]"), in + "x" + in) << response;
        EXPECT_EQ(picked(response, "\\[.*\\]"), "[" + in + "x" + in + "]") << response;
      }
    }
  }
}

TEST_F(ZPKCommStackRegexTest, ACombiningCharacterIsACharacterOfItsOwn) {
  EXPECT_EQ(picked("e\u0301[x]> ", "\\[(.)\\]"), "x");
  EXPECT_EQ(picked("[e\u0301]> ", "\\[(..)\\]"), "e\u0301");
}

TEST_F(ZPKCommStackRegexTest, NulBytesInTheResponseAreSearchedLikeAnyOther) {
  EXPECT_EQ(picked(std::string("a\0b[c\0d]> ", 10), "\\[(.*)\\]"), std::string("c\0d", 3));
}

TEST_F(ZPKCommStackRegexTest, ANullPatternGivesTheWholeResponseWithoutItsEcho) {
  const ScriptedStack made;
  made.base->addRead("ask\nanswer> ");
  EXPECT_EQ(made->sendCommandStringWithEchoRemoval("ask", nullptr, 1, nullptr), "answer> ");
}

TEST_F(ZPKCommStackRegexTest, WithoutAMatchTheErrorShowsPatternAndResponse) {
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(picked("ask\nanswer\n> ", "version (\\d+)", &error), std::nullopt);
  expectFailure(
      error, log,
      commStackFailure(308, "Unable to parse response\nregex:version (\\d+)\nresponse:answer\n> \n",
                       "sendCommandStringWithEchoRemoval:regex:timeout:error:"));
}

TEST_F(ZPKCommStackRegexTest, NeitherPatternNorResponseIsUsedAsAFormat) {
  ZPKErrorPtr error;
  EXPECT_EQ(picked("100%@ %s%n%d%% %1$s> ", "%d%@%s%%z", &error), std::nullopt);
  expectFailure(
      error, log,
      commStackFailure(
          308, "Unable to parse response\nregex:%d%@%s%%z\nresponse:100%@ %s%n%d%% %1$s> \n",
          "sendCommandStringWithEchoRemoval:regex:timeout:error:"));
}

TEST_F(ZPKCommStackRegexTest, AFailedCommandIsNotSearched) {
  const ScriptedStack made;
  ZPKErrorPtr error;
  EXPECT_EQ(
      made->sendCommandStringWithEchoRemoval("ask", ZPKRegex::initWithPattern("x"), 0, &error),
      std::nullopt);
  EXPECT_EQ(codeOf(error), 305);
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(ZPKCommStackRegexTest, AnEmptyResponseIsSearchedIfTimeoutsAreNotExceptions) {
  const ScriptedStack made;
  made->setTimeoutIsException(false);
  EXPECT_EQ(
      made->sendCommandStringWithEchoRemoval("ask", ZPKRegex::initWithPattern("x?"), 0, nullptr),
      "");
  ZPKErrorPtr error;
  EXPECT_EQ(
      made->sendCommandStringWithEchoRemoval("ask", ZPKRegex::initWithPattern("x"), 0, &error),
      std::nullopt);
  EXPECT_EQ(descriptionOf(error), "Unable to parse response\nregex:x\nresponse:\n");
}

TEST_F(ZPKCommStackRegexTest, APatternThatBacktracksEndlesslyDoesNotMatch) {
  ZPKErrorPtr error;
  EXPECT_EQ(picked(std::string(40, 'a') + "> ", "^(a+)+$", &error), std::nullopt);
  EXPECT_EQ(codeOf(error), 308);
}

TEST_F(ZPKCommStackRegexTest, ALongResponseIsSearchedToItsEnd) {
  std::string response(1 << 20, 'x');
  response += "\u20AC[end]> ";
  EXPECT_EQ(picked(response, "(?s)^.*\\[(.*)\\]"), "end");
}

}  // namespace
