#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>

#include "ZephalConsole/Internal/Matcher.h"

namespace {

using zephal::Pattern;
using zephal::regex;
using zephal::internal::Matcher;

struct Place {
  size_t index;
  uint64_t begin;
  uint64_t end;
  friend bool operator==(const Place&, const Place&) = default;
};

std::optional<Place> placeOf(const std::optional<Matcher::Found>& found) {
  if (!found.has_value()) return std::nullopt;
  const auto& [begin, end] = found->groups.front();
  return Place{found->index, begin, end};
}

// Where the patterns are found in a text that arrives in pieces of up to `longest` bytes.
std::optional<Place> findInPieces(const std::string& text, const std::vector<Pattern>& patterns,
                                  size_t longest, std::mt19937& random) {
  Matcher matcher(patterns);
  size_t arrived = 0;
  while (arrived < text.size()) {
    arrived = std::min(text.size(), arrived + 1 + random() % longest);
    const auto found = matcher.look(std::string_view(text).substr(0, arrived), 0, false);
    if (found.has_value()) return placeOf(found);
  }
  return placeOf(matcher.look(text, 0, true));
}

std::string randomText(std::mt19937& random, size_t length, const std::string& alphabet) {
  std::string text(length, ' ');
  for (char& byte : text) byte = alphabet[random() % alphabet.size()];
  return text;
}

// The plain model: every expression over the whole text, the earliest, then the first listed.
std::optional<Place> model(const std::string& text, const std::vector<std::string>& expressions) {
  std::optional<Place> first;
  for (size_t i = 0; i < expressions.size(); ++i) {
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(expressions[i]))) continue;
    const auto begin = static_cast<uint64_t>(match.position());
    if (first.has_value() && first->begin <= begin) continue;
    first = Place{i, begin, begin + static_cast<uint64_t>(match.length())};
  }
  return first;
}

TEST(Matcher, LetsAnEmptyMatchAtTheEndWaitForAnEarlierPattern) {
  Matcher matcher({Pattern("ab"), regex("x*")});
  EXPECT_FALSE(matcher.look("", 0, false).has_value());
  EXPECT_TRUE(matcher.isUndecided());
  EXPECT_EQ(placeOf(matcher.look("ab", 0, false)), (Place{0, 0, 2}));
}

TEST(Matcher, FindsTheSameHoweverTheTextIsCut) {
  const std::vector<std::string> pool = {"ab", "b+",  "a.c",     "(a|ab)c", "[bc]a$", "b*c",
                                         "ca", "aba", "a{2,3}b", "c(?=a)",  "a(?!b)"};
  std::mt19937 random(11);
  for (int round = 0; round < 20000; ++round) {
    const std::string text = randomText(random, random() % 16, "abc");
    std::vector<std::string> expressions;
    std::vector<Pattern> patterns;
    for (size_t i = 0; i < 1 + random() % 3; ++i) {
      expressions.push_back(pool[random() % pool.size()]);
      const bool isText = expressions.back().find_first_of("+.(*[{$") == std::string::npos;
      patterns.push_back(isText ? Pattern(expressions.back()) : regex(expressions.back()));
    }
    const std::optional<Place> expected = model(text, expressions);
    for (const size_t longest : {size_t{1}, size_t{3}, size_t{16}}) {
      ASSERT_EQ(findInPieces(text, patterns, longest, random), expected)
          << text << " round " << round;
    }
  }
}

TEST(Matcher, WaitsForAnEarlierBeginningThatMayStillCome) {
  Matcher matcher({"abc", "b"});
  EXPECT_FALSE(matcher.look("ab", 0, false).has_value());
  EXPECT_TRUE(matcher.isUndecided());
  EXPECT_EQ(placeOf(matcher.look("abc", 0, false)), (Place{0, 0, 3}));
}

TEST(Matcher, TakesTheLaterOneWhenTheEarlierDoesNotCome) {
  Matcher matcher({"abc", "b"});
  EXPECT_FALSE(matcher.look("ab", 0, false).has_value());
  EXPECT_EQ(placeOf(matcher.look("abd", 0, false)), (Place{1, 1, 2}));
}

TEST(Matcher, TakesWhatIsThereAtAFinalLook) {
  Matcher matcher({"abc", "b"});
  EXPECT_EQ(placeOf(matcher.look("ab", 0, true)), (Place{1, 1, 2}));
}

TEST(Matcher, PrefersTheFirstListedOfThoseThatBeginTogether) {
  Matcher matcher({regex("a."), "ab"});
  EXPECT_EQ(placeOf(matcher.look("xab", 0, false)), (Place{0, 1, 3}));
}

TEST(Matcher, WaitsAtTheEndOfTheTextForALongerMatch) {
  Matcher matcher({regex("[0-9]+")});
  EXPECT_FALSE(matcher.look("volts 12", 0, false).has_value());
  EXPECT_TRUE(matcher.isUndecided());
  EXPECT_EQ(placeOf(matcher.look("volts 123 ", 0, false)), (Place{0, 6, 9}));
}

TEST(Matcher, GoesOnAfterAFinalLookThatFoundNothing) {
  Matcher matcher({regex("ab$")});
  EXPECT_FALSE(matcher.look("a", 0, true).has_value());
  EXPECT_EQ(placeOf(matcher.look("ab", 0, true)), (Place{0, 0, 2}));
}

TEST(Matcher, ForgetsABeginningThatWasDropped) {
  Matcher matcher({"abc"});
  EXPECT_FALSE(matcher.look("xxab", 0, false).has_value());
  EXPECT_FALSE(matcher.look("bc", 3, false).has_value());
  EXPECT_EQ(placeOf(matcher.look("bcabc", 3, false)), (Place{0, 5, 8}));
}

TEST(Matcher, IsNotUndecidedOverATextThatBeginsNothing) {
  Matcher matcher({"abc", regex("x[yz]")});
  EXPECT_FALSE(matcher.look("nothing", 0, false).has_value());
  EXPECT_FALSE(matcher.isUndecided());
}

// A busy machine may take so long between two looks that the second is due, but not each time.
TEST(Matcher, PutsOffALongSearchUntilTheTextHasGrown) {
  Matcher matcher({regex("(?s)b.*c")});
  const std::string text = "b" + std::string(size_t{8} << 20, 'x') + "c";
  bool isPutOff = false;
  for (size_t missing = 1000; missing > 0 && !isPutOff; --missing) {
    const std::string_view part = std::string_view(text).substr(0, text.size() - missing);
    EXPECT_FALSE(matcher.look(part, 0, false).has_value());
    isPutOff = matcher.nextLook().has_value();
    EXPECT_FALSE(isPutOff && missing == 1000);
  }
  EXPECT_TRUE(isPutOff);
  EXPECT_TRUE(matcher.look(text, 0, true).has_value());
}

TEST(Matcher, RefusesAnExpressionThatGoesOverTheTextFromEachBeginning) {
  Matcher matcher({regex(R"((?=a[^b]*\d)a)")});
  EXPECT_THROW(matcher.look(std::string(size_t{1} << 20, 'a'), 0, true),
               zephal::internal::PatternSearch::TooHard);
}

TEST(Matcher, RefusesAnExpressionThatTakesTooManySteps) {
  Matcher matcher({regex("^(?:a|aa)+$")});
  const std::string text = std::string(60, 'a') + "b";
  EXPECT_THROW(matcher.look(text, 0, true), zephal::internal::PatternSearch::TooHard);
}

}  // namespace
