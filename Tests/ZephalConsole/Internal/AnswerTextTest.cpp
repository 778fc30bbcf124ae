#include <gtest/gtest.h>

#include "ZephalConsole/Internal/AnswerText.h"

namespace {

using zephal::internal::answerText;

TEST(AnswerText, EndsLinesWithALineFeed) { EXPECT_EQ(answerText("a\r\nb\r\r\nc\n"), "a\nb\nc\n"); }

TEST(AnswerText, DropsCarriageReturnsAtTheBeginningOfLines) {
  EXPECT_EQ(answerText("\ra\n\rb"), "a\nb");
}

TEST(AnswerText, KeepsCarriageReturnsWithinALine) {
  EXPECT_EQ(answerText("10%\r20%\r\n"), "10%\r20%\n");
}

TEST(AnswerText, KeepsAnEmptyAnswerAndEmptyLines) {
  EXPECT_EQ(answerText(""), "");
  EXPECT_EQ(answerText("\r\n\r\n"), "\n\n");
}

}  // namespace
