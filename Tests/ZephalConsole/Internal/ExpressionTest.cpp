#include <gtest/gtest.h>

#include <stdexcept>

#include "ZephalConsole/Internal/Expression.h"

namespace {

using zephal::Pattern;
using Outcome = Pattern::Expression::Outcome;

TEST(Expression, SaysWhereAnExpressionIsWrong) {
  try {
    const Pattern::Expression expression("a(b");
    FAIL();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(),
                 "not a regular expression: a(b: missing closing parenthesis at offset 3");
  }
}

TEST(Expression, IsPartialIfMoreBytesCouldMakeTheMatchLonger) {
  const Pattern::Expression expression("b+");
  const auto result = expression.search("abb", 0, 3, false);
  EXPECT_EQ(result.outcome, Outcome::kPartial);
  EXPECT_EQ(result.begin, 1U);
}

TEST(Expression, MatchesWhatIsThereInAWholeText) {
  const Pattern::Expression expression("b+");
  const auto result = expression.search("abb", 0, 3, true);
  ASSERT_EQ(result.outcome, Outcome::kMatch);
  EXPECT_EQ(result.groups.front(), (std::pair<size_t, size_t>{1, 3}));
}

TEST(Expression, LooksAtBytesThatAreNotUTF8) {
  const Pattern::Expression expression("\xff.\\x00");
  EXPECT_EQ(expression.search(std::string_view("a\xff\xfe\0b", 5), 0, 5, true).outcome,
            Outcome::kMatch);
}

TEST(Expression, BeginsNoMatchAfterTheLastStart) {
  const Pattern::Expression expression("b");
  EXPECT_EQ(expression.search("aaab", 0, 2, true).outcome, Outcome::kNone);
}

TEST(Expression, GivesUpAfterTooManySteps) {
  const Pattern::Expression expression("^(?:a|aa)+$");
  const std::string text = std::string(60, 'a') + "b";
  EXPECT_EQ(expression.search(text, 0, text.size(), true).outcome, Outcome::kTooHard);
}

}  // namespace
