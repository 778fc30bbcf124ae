#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>

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

// PCRE2's search for a place to begin misses the first three, and finds the last.
TEST(Expression, FindsWhatShortCutsMiss) {
  const auto outcomeOf = [](const char* source, std::string_view text) {
    return Pattern::Expression(source).search(text, 0, text.size(), true).outcome;
  };
  EXPECT_EQ(outcomeOf("(c|).*?.", "c"), Outcome::kMatch);
  EXPECT_EQ(outcomeOf("(?:.|)a*?b", "bc"), Outcome::kMatch);
  EXPECT_EQ(outcomeOf("(?=a)\\w*a", "a"), Outcome::kMatch);
  EXPECT_EQ(outcomeOf("(?>\\w*|)a", "a\nba"), Outcome::kNone);
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

// What begins before is nothing, whatever the expression looks at around its beginning.
TEST(Expression, FindsTheSameFromItsFirstBegin) {
  std::mt19937 random(3);
  size_t skipped = 0;
  for (const char* source : {"[bc]a",   "[bc]",           "(?<=a)[bc]", "(?<!a)[bc]c", "\\b[bc]",
                             "\\B[bc]", "(?m)^[bc]",      "[bc]$",      "[bc]+",       "b|c",
                             "b|ca|da", "(?!ba)[bc]a",    "(?=ca)[bc]", "(?i)[bc]d",   "(?:b|c)*",
                             "[bc]?d",  "c(*PRUNE)[bc]d", "a\\K[bc]",   "(?s).[bc]",   "[^a]b"}) {
    const Pattern::Expression expression(source);
    for (int round = 0; round < 1000; ++round) {
      std::string text(random() % 8, ' ');
      for (char& byte : text) byte = "abcd B\n"[random() % 7];
      const size_t start = random() % (text.size() + 1);
      const bool isWhole = random() % 2 == 0;
      const size_t begin = expression.firstBegin(text, start);
      skipped += begin - start;
      const auto expected = expression.search(text, start, text.size(), isWhole);
      const auto result = expression.search(text, begin, text.size(), isWhole);
      ASSERT_EQ(result.outcome, expected.outcome) << source << " in " << text;
      ASSERT_EQ(result.begin, expected.begin) << source << " in " << text;
      ASSERT_EQ(result.groups, expected.groups) << source << " in " << text;
    }
  }
  EXPECT_GT(skipped, 1000U);
}

TEST(Expression, GivesUpAfterTooManySteps) {
  const Pattern::Expression expression("^(?:a|aa)+$");
  const std::string text = std::string(60, 'a') + "b";
  EXPECT_EQ(expression.search(text, 0, text.size(), true).outcome, Outcome::kTooHard);
}

TEST(Expression, EndsOnlyWhereNothingFollows) {
  for (const char* source : {"b$", "b\\Z", "b\\z", "b(?=\\Z)"}) {
    const Pattern::Expression expression(source);
    EXPECT_EQ(expression.search("ab\n", 0, 3, true).outcome, Outcome::kNone) << source;
    EXPECT_EQ(expression.search("ab\n", 0, 3, false).outcome, Outcome::kNone) << source;
    EXPECT_EQ(expression.search("ab", 0, 2, false).outcome, Outcome::kPartial) << source;
    EXPECT_EQ(expression.search("ab", 0, 2, true).outcome, Outcome::kMatch) << source;
  }
}

TEST(Expression, LeavesBackslashesThatAreNoEndsAlone) {
  EXPECT_EQ(Pattern::Expression("\\\\Z").search("\\Z", 0, 2, true).outcome, Outcome::kMatch);
  EXPECT_EQ(Pattern::Expression("\\QZ\\Z\\E").search("Z\\Z", 0, 3, true).outcome, Outcome::kMatch);
  EXPECT_EQ(Pattern::Expression("\\cZ").search("\x1a", 0, 1, true).outcome, Outcome::kMatch);
  EXPECT_EQ(Pattern::Expression("").search("", 0, 0, true).outcome, Outcome::kMatch);
}

TEST(Expression, RefusesWhatDependsOnHowTheBytesAreCut) {
  for (const char* source : {"\\Ga", "(*UTF)a", "(*CRLF)a", "a(*COMMIT)b", "a\\C", "\\"}) {
    EXPECT_THROW(Pattern::Expression{source}, std::invalid_argument) << source;
  }
}

TEST(Expression, TellsWhetherItMatchesNothing) {
  EXPECT_TRUE(Pattern::Expression("a*$").matchesNothing());
  EXPECT_FALSE(Pattern::Expression("a+$").matchesNothing());
}

}  // namespace
