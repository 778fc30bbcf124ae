#include <gtest/gtest.h>

#include <string>

#include "ZephalConsole/Internal/EchoSearch.h"

namespace {

using zephal::internal::Echo;
using zephal::internal::echoAt;

// The text's beginnings are undecided, and the whole is an echo of this length.
void expectEcho(std::string_view echo, std::string_view command) {
  for (size_t length = 0; length < echo.size(); ++length) {
    EXPECT_EQ(echoAt(echo.substr(0, length), command).state, Echo::State::kUndecided) << length;
  }
  const Echo found = echoAt(std::string(echo) + "answer", command);
  EXPECT_EQ(found.state, Echo::State::kFound);
  EXPECT_EQ(found.length, echo.size());
}

TEST(EchoSearch, FindsAnEchoThatEndsWithALineFeed) { expectEcho("version\n", "version"); }

TEST(EchoSearch, FindsAnEchoThatEndsWithCarriageReturnAndLineFeed) {
  expectEcho("version\r\n", "version");
  expectEcho("version\r\r\n", "version");
}

TEST(EchoSearch, FindsAnEchoThatWasWrappedAtTheMargin) {
  expectEcho("echo one \rtwo\r\n", "echo onetwo");
  expectEcho("echo one\r\ntwo\r\n", "echo onetwo");
  expectEcho("echo one\rtwo\r\n", "echo onetwo");
}

TEST(EchoSearch, FindsAnEchoWhoseMarginFollowsABlank) {
  expectEcho("echo one  \rtwo\r\n", "echo one two");
}

TEST(EchoSearch, FindsAnEchoThatWasWrappedAtABlankOfTheCommand) {
  expectEcho("echo one | \r\r\ncat\r\n", "echo one | cat");
}

TEST(EchoSearch, FindsAnEchoWhoseEndWasDrawnOnceMore) {
  expectEcho("echo one | cat \rt\r\n", "echo one | cat");
}

TEST(EchoSearch, FindsAnEchoThatAScrollingEditorHasCut) {
  expectEcho("\r<xxx | cat\r\n", "echo xxxxxxxx | cat");
  expectEcho("echo xxx\r<xxx | cat\r\n", "echo xxxxxxxx | cat");
}

TEST(EchoSearch, FindsNoneInEndlessRedrawing) {
  EXPECT_EQ(echoAt("echo" + std::string(10000, '\r'), "echo one").state, Echo::State::kNone);
}

TEST(EchoSearch, FindsTheLineBreakOfAnEmptyCommand) { expectEcho("\r\n", ""); }

TEST(EchoSearch, FindsNoneIfTheAnswerBeginsOtherwise) {
  EXPECT_EQ(echoAt("1.0\n", "version").state, Echo::State::kNone);
  EXPECT_EQ(echoAt("\nversion\n", "version").state, Echo::State::kNone);
}

TEST(EchoSearch, FindsNoneIfTheAnswerOnlyBeginsLikeTheCommand) {
  EXPECT_EQ(echoAt("version 1.0\n", "version").state, Echo::State::kNone);
}

}  // namespace
