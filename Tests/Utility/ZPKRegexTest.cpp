#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/LocationPrefix.h"
#include "Support/ProcessorTime.h"
#include "Utility/ZPIRangeEnd.h"
#include "Utility/ZPKRegex.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kMiB = 1 << 20;

// One character of each length in UTF-8.
constexpr const char* kTwo = "\xC3\xA9";
constexpr const char* kThree = "\xE2\x82\xAC";
constexpr const char* kFour = "\xF0\x9F\x98\x80";

ZPKRegexPtr compile(std::string_view pattern) {
  ZPKErrorPtr error;
  ZPKRegexPtr regex = ZPKRegex::initWithPattern(pattern, &error);
  EXPECT_NE(regex, nullptr) << pattern << ": " << (error ? error->description() : "no error");
  return regex;
}

std::optional<ZPKRegexMatch> first(std::string_view pattern, std::string_view text,
                                   ZPKRange range = ZPKRegex::wholeText()) {
  return compile(pattern)->firstMatch(text, range);
}

// The whole range of the first match; not found if there is none.
ZPKRange firstRange(std::string_view pattern, std::string_view text,
                    ZPKRange range = ZPKRegex::wholeText()) {
  const std::optional<ZPKRegexMatch> match = first(pattern, text, range);
  return match.has_value() ? match->range() : ZPKRange();
}

std::vector<ZPKRange> allRanges(std::string_view pattern, std::string_view text,
                                ZPKRange range = ZPKRegex::wholeText()) {
  const ZPKRegexPtr regex = compile(pattern);
  std::vector<ZPKRange> ranges;
  for (const ZPKRegexMatch& match : regex->allMatches(text, range)) ranges.push_back(match.range());
  EXPECT_EQ(regex->countMatches(text, range), ranges.size());
  if (range == ZPKRegex::wholeText()) {
    constexpr size_t kUntouched = SIZE_MAX;
    size_t end = kUntouched;
    EXPECT_EQ(ZPICountMatches(*regex, text, &end), ranges.size());
    EXPECT_EQ(end, ranges.empty() ? kUntouched : ZPIRangeEnd(ranges.back()));
  }
  return ranges;
}

std::string repeated(std::string_view part, size_t size) {
  std::string text;
  while (text.size() < size) text += part;
  return text;
}

// --- Compiling.

TEST(ZPKRegexTest, ThePatternIsKept) {
  EXPECT_EQ(compile("a(b)c")->pattern(), "a(b)c");
  EXPECT_EQ(compile("")->pattern(), "");
  EXPECT_EQ(compile(std::string_view("a\0b", 3))->pattern(), std::string("a\0b", 3));
}

TEST(ZPKRegexTest, AGoodPatternLeavesTheSlotAlone) {
  ZPKErrorPtr error = olderError();
  EXPECT_NE(ZPKRegex::initWithPattern("a", &error), nullptr);
  EXPECT_EQ(error, olderError());
}

TEST(ZPKRegexTest, ABadPatternReturnsNullAndAnErrorWithoutLogging) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(ZPKRegex::initWithPattern("a(b", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "PCRE2");
  EXPECT_EQ(error->code(), 114);
  EXPECT_EQ(error->description(), "missing closing parenthesis at offset 3");
  EXPECT_THAT(
      error->location(),
      testing::StartsWith(locationPrefix() + "ZPKRegex.cpp:+[ZPKRegex initWithPattern:error:]:"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPKRegexTest, ANullPatternIsBadAndAnEmptyOneGood) {
  const LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(ZPKRegex::initWithPattern(std::nullopt, &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "PCRE2");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(firstRange("", "abc"), (ZPKRange{0, 0}));
}

TEST(ZPKRegexTest, EveryBadPatternReturnsNullWithOrWithoutASlot) {
  for (const char* pattern : {"(", ")", "[", "*", "a{2,1}", "\\", "(?<n>a)(?<n>b)", "(?P<", "[z-a]",
                              "\\1", "(?<=a+)b", "\xFF", "a\xC3", "\\x{110000}", "(?z)"}) {
    ZPKErrorPtr error;
    EXPECT_EQ(ZPKRegex::initWithPattern(pattern, &error), nullptr) << pattern;
    EXPECT_NE(error, nullptr) << pattern;
    EXPECT_EQ(ZPKRegex::initWithPattern(pattern), nullptr) << pattern;
  }
}

TEST(ZPKRegexTest, AnEscapeForHalfACharacterDoesNotCompile) {
  EXPECT_EQ(ZPKRegex::initWithPattern("\\C"), nullptr);
}

// --- Positions.

TEST(ZPKRegexTest, PositionsCountCodePointsBeforeTheMatch) {
  EXPECT_EQ(firstRange("x", std::string("ax")), (ZPKRange{1, 1}));
  EXPECT_EQ(firstRange("x", std::string(kTwo) + "x"), (ZPKRange{1, 1}));
  EXPECT_EQ(firstRange("x", std::string(kThree) + "x"), (ZPKRange{1, 1}));
  EXPECT_EQ(firstRange("x", std::string(kFour) + "x"), (ZPKRange{1, 1}));
  EXPECT_EQ(firstRange("x", std::string(kTwo) + kThree + kFour + "ax"), (ZPKRange{4, 1}));
}

TEST(ZPKRegexTest, PositionsCountCodePointsWithinTheMatch) {
  const std::string text = std::string("a<") + kTwo + kThree + kFour + ">z";
  EXPECT_EQ(firstRange("<.*>", text), (ZPKRange{1, 5}));
  EXPECT_EQ(firstRange("<...>", text), (ZPKRange{1, 5}));
  EXPECT_EQ(firstRange(kThree, text), (ZPKRange{3, 1}));
}

TEST(ZPKRegexTest, CharactersAfterTheMatchDoNotCount) {
  EXPECT_EQ(firstRange("b", std::string("ab") + kTwo + kThree + kFour), (ZPKRange{1, 1}));
}

TEST(ZPKRegexTest, LaterMatchesAndGroupsCountFromTheStart) {
  const std::string text = std::string(kTwo) + "1" + kThree + "2" + kFour + "3";
  EXPECT_THAT(allRanges("\\d", text), ElementsAre(ZPKRange{1, 1}, ZPKRange{3, 1}, ZPKRange{5, 1}));
  const std::vector<ZPKRegexMatch> matches = compile("(\\D)(\\d)")->allMatches(text);
  ASSERT_EQ(matches.size(), 3U);
  EXPECT_EQ(matches[2].range(), (ZPKRange{4, 2}));
  EXPECT_EQ(matches[2].groupRange(1), (ZPKRange{4, 1}));
  EXPECT_EQ(matches[2].groupRange(2), (ZPKRange{5, 1}));
}

TEST(ZPKRegexTest, AMatchAtTheEndOfTheTextIsFound) {
  EXPECT_EQ(firstRange("=> $", "1.0\n=> "), (ZPKRange{4, 3}));
  EXPECT_EQ(firstRange("$", std::string(kFour) + kFour), (ZPKRange{2, 0}));
}

// --- Groups.

TEST(ZPKRegexTest, GroupsAreNumberedByTheirOpeningParentheses) {
  const auto match = first("((a)(b))(?:c)(d)", "xabcd");
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->groupRange(0), (ZPKRange{1, 4}));
  EXPECT_EQ(match->groupRange(1), (ZPKRange{1, 2}));
  EXPECT_EQ(match->groupRange(2), (ZPKRange{1, 1}));
  EXPECT_EQ(match->groupRange(3), (ZPKRange{2, 1}));
  EXPECT_EQ(match->groupRange(4), (ZPKRange{4, 1}));
}

TEST(ZPKRegexTest, AnUnusedGroupIsNotFoundUnlikeAnEmptyOne) {
  const auto match = first("(a)|(b)|(c)()", "xb");
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->groupRange(1).location, ZPKNotFound);
  EXPECT_EQ(match->groupRange(2), (ZPKRange{1, 1}));
  EXPECT_EQ(match->groupRange(3).location, ZPKNotFound);
  EXPECT_EQ(match->groupRange(4).location, ZPKNotFound);
  EXPECT_EQ(first("(c)()", "xc")->groupRange(2), (ZPKRange{2, 0}));
}

TEST(ZPKRegexTest, APatternWithoutGroupsHasNone) {
  EXPECT_EQ(first("b", "abc")->groupRange(1).location, ZPKNotFound);
}

TEST(ZPKRegexTest, AGroupMayLieOutsideItsMatch) {
  const auto match = first("b(?=c(d))", "abcd");
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->range(), (ZPKRange{1, 1}));
  EXPECT_EQ(match->groupRange(1), (ZPKRange{3, 1}));
  EXPECT_EQ(first("(?<=(a))b", "ab")->groupRange(1), (ZPKRange{0, 1}));
}

TEST(ZPKRegexTest, TheChipIdentifierOfAPromptIsFound) {
  const std::string prompt = std::string(kTwo) + "[0001A2B3:00C4D5E6] :-) ";
  EXPECT_EQ(firstRange("\\[[0-9A-Fa-f]{8}:[0-9A-Fa-f]{8}\\]", prompt), (ZPKRange{1, 19}));
}

// --- Ranges.

TEST(ZPKRegexTest, OnlyTheRangeIsSearched) {
  EXPECT_EQ(firstRange("a", "abab", {1, 3}), (ZPKRange{2, 1}));
  EXPECT_EQ(firstRange("a", "abab", {3, 1}), ZPKRange());
  EXPECT_EQ(firstRange("ab", "abab", {1, 2}), ZPKRange());
  EXPECT_THAT(allRanges("b", "bbbb", {1, 2}), ElementsAre(ZPKRange{1, 1}, ZPKRange{2, 1}));
}

TEST(ZPKRegexTest, ARangeCountsCodePoints) {
  const std::string text = std::string(kTwo) + "a" + kThree + "a" + kFour + "a";
  EXPECT_EQ(firstRange("a", text, {2, 3}), (ZPKRange{3, 1}));
  EXPECT_EQ(firstRange("a", text, {4, 1}), ZPKRange());
  EXPECT_EQ(firstRange("a", text, {4, 2}), (ZPKRange{5, 1}));
}

TEST(ZPKRegexTest, TheRangeActsAsTheWholeText) {
  EXPECT_EQ(firstRange("^b$", "abc", {1, 1}), (ZPKRange{1, 1}));
  EXPECT_EQ(firstRange("(?<=a)b", "abc", {1, 1}), ZPKRange());
  EXPECT_EQ(firstRange("b(?=c)", "abc", {1, 1}), ZPKRange());
}

TEST(ZPKRegexTest, ARangeIsTruncatedAtTheEndOfTheText) {
  EXPECT_EQ(firstRange("c", "abc", {1, 100}), (ZPKRange{2, 1}));
  EXPECT_EQ(firstRange("c", "abc", {7, 1}), ZPKRange());
  EXPECT_EQ(firstRange("", "abc", {7, 1}), (ZPKRange{3, 0}));
  EXPECT_EQ(firstRange("", "abc", {1, 0}), (ZPKRange{1, 0}));
  EXPECT_EQ(firstRange("c", "abc", {ZPKNotFound, ZPKNotFound}), ZPKRange());
}

// --- Walks.

TEST(ZPKRegexTest, AllMatchesAreReturnedFromLeftToRightWithoutOverlap) {
  EXPECT_THAT(allRanges("aa", "aaaaa"), ElementsAre(ZPKRange{0, 2}, ZPKRange{2, 2}));
  EXPECT_THAT(allRanges("x", "aaa"), IsEmpty());
}

TEST(ZPKRegexTest, AWalkContinuesAfterAnEmptyMatch) {
  EXPECT_THAT(allRanges("", ""), ElementsAre(ZPKRange{0, 0}));
  EXPECT_THAT(allRanges("", "ab"), ElementsAre(ZPKRange{0, 0}, ZPKRange{1, 0}, ZPKRange{2, 0}));
  EXPECT_THAT(allRanges("", std::string(kTwo) + kThree + kFour),
              ElementsAre(ZPKRange{0, 0}, ZPKRange{1, 0}, ZPKRange{2, 0}, ZPKRange{3, 0}));
  EXPECT_THAT(allRanges("a*", "baac"),
              ElementsAre(ZPKRange{0, 0}, ZPKRange{1, 2}, ZPKRange{3, 0}, ZPKRange{4, 0}));
}

TEST(ZPKRegexTest, ANonEmptyMatchMayStartAtAnEmptyOne) {
  EXPECT_THAT(allRanges("|a", "a"), ElementsAre(ZPKRange{0, 0}, ZPKRange{0, 1}, ZPKRange{1, 0}));
}

TEST(ZPKRegexTest, EmptyMatchesDoNotSplitALineBreak) {
  EXPECT_THAT(allRanges("$", "\r\n"), ElementsAre(ZPKRange{0, 0}, ZPKRange{2, 0}));
  EXPECT_THAT(allRanges("(?m)^", "a\r\nb"), ElementsAre(ZPKRange{0, 0}, ZPKRange{3, 0}));
}

TEST(ZPKRegexTest, AMatchWithAResetStartIsReturnedOnce) {
  EXPECT_THAT(allRanges("a\\Kb", "abab"), ElementsAre(ZPKRange{1, 1}, ZPKRange{3, 1}));
}

// The match starts before the position where the search began, and ends at that position.
TEST(ZPKRegexTest, AStartResetInALookbehindNeverStallsTheWalk) {
  constexpr const char* pattern = "(?(DEFINE)(?<reset>\\K))(?<=(?&reset)a)";
  EXPECT_THAT(allRanges(pattern, "aba"), ElementsAre(ZPKRange{0, 1}, ZPKRange{2, 1}));
  EXPECT_THAT(allRanges(pattern, std::string("a") + kFour + "a"),
              ElementsAre(ZPKRange{0, 1}, ZPKRange{2, 1}));
}

TEST(ZPKRegexTest, AStartResetInALookaheadYieldsAnEmptyMatch) {
  constexpr const char* pattern = "(?(DEFINE)(?<reset>\\K))(?=a(?&reset))";
  EXPECT_THAT(allRanges(pattern, "ba"), ElementsAre(ZPKRange{1, 0}));
}

// --- Line breaks.

TEST(ZPKRegexTest, ADotMatchesNoLineBreakOfAnyKind) {
  EXPECT_THAT(allRanges(".+", "one\rtwo\nthree\r\nfour"),
              ElementsAre(ZPKRange{0, 3}, ZPKRange{4, 3}, ZPKRange{8, 5}, ZPKRange{15, 4}));
}

TEST(ZPKRegexTest, ADollarMatchesBeforeAnyKindOfFinalLineBreak) {
  for (const char* end : {"", "\r", "\n", "\r\n"}) {
    EXPECT_EQ(firstRange("b$", std::string("ab") + end), (ZPKRange{1, 1}));
  }
  EXPECT_EQ(firstRange("b$", "ab\r\n\n"), ZPKRange());
}

TEST(ZPKRegexTest, MultilineAnchorsKnowAllLineBreaks) {
  EXPECT_THAT(allRanges("(?m)^\\w+$", "one\rtwo\nthree\r\nfour"),
              ElementsAre(ZPKRange{0, 3}, ZPKRange{4, 3}, ZPKRange{8, 5}, ZPKRange{15, 4}));
}

TEST(ZPKRegexTest, CharacterClassesMatchLineBreaksLikeAnyCharacter) {
  EXPECT_EQ(firstRange("a[^x]b", "a\rb"), (ZPKRange{0, 3}));
  EXPECT_EQ(firstRange("a\\sb", "a\nb"), (ZPKRange{0, 3}));
}

// --- Odd subjects.

TEST(ZPKRegexTest, ASubjectWithInvalidUTF8HasNoMatch) {
  for (const char* text : {"a\xFF", "a\xC3",
                           "\xE2\x82"
                           "a",
                           "a\xED\xA0\x80",
                           "\x80"
                           "a"}) {
    EXPECT_FALSE(first("a", text).has_value());
    EXPECT_THAT(allRanges("a", text), IsEmpty());
  }
}

TEST(ZPKRegexTest, InvalidBytesOutsideTheRangeMatterToo) {
  EXPECT_FALSE(first("a", "a\xFF", {0, 1}).has_value());
}

TEST(ZPKRegexTest, ANulIsACharacterLikeAnyOther) {
  EXPECT_EQ(firstRange("b", std::string_view("a\0b", 3)), (ZPKRange{2, 1}));
  EXPECT_EQ(firstRange("a.b", std::string_view("a\0b", 3)), (ZPKRange{0, 3}));
}

TEST(ZPKRegexTest, AnEmptySubjectMayMatch) {
  EXPECT_EQ(firstRange("^$", ""), (ZPKRange{0, 0}));
  EXPECT_EQ(firstRange("a*", std::string_view()), (ZPKRange{0, 0}));
  EXPECT_EQ(firstRange("a", ""), ZPKRange());
}

// --- Long subjects. A repeated group needs memory for every repetition, far more than a thread's
// stack has.

TEST(ZPKRegexTest, ARepeatedGroupRunsOverALongResponse) {
  const std::string text = repeated("line of text\n", 4 * kMiB) + "prompt";
  EXPECT_EQ(firstRange("(.|\\n)*prompt", text), (ZPKRange{0, text.size()}));
}

TEST(ZPKRegexTest, ARepeatedGroupReachesTheEndOfALongResponse) {
  const std::string text = repeated("ab", 4 * kMiB);
  EXPECT_EQ(firstRange("(?:a|b)*", text), (ZPKRange{0, text.size()}));
  EXPECT_EQ(first("(a|b)*", text)->groupRange(1), (ZPKRange{text.size() - 1, 1}));
}

TEST(ZPKRegexTest, CodePointsOfALongResponseAreCountedCorrectly) {
  const std::string text = repeated(kThree, 3 * kMiB) + "prompt";
  EXPECT_EQ(firstRange("prompt", text), (ZPKRange{kMiB, 6}));
  EXPECT_EQ(compile(kThree)->countMatches(text), kMiB);
}

TEST(ZPKRegexTest, AWalkOverALongResponseSurvivesACostlyMatch) {
  const std::string costly = repeated("ab", kMiB / 16);
  const std::string text = costly + "\n" + costly + "\n" + costly;
  EXPECT_THAT(allRanges("(?:a|b)+", text),
              ElementsAre(ZPKRange{0, costly.size()}, ZPKRange{costly.size() + 1, costly.size()},
                          ZPKRange{2 * costly.size() + 2, costly.size()}));
}

// --- Searches that give up. They would run for minutes, or for ever; the bound is generous, and
// does not count other programs' time.

class Stopwatch {
 public:
  double seconds() const { return processorTime() - _start; }

 private:
  const double _start = processorTime();
};

constexpr double kBoundedTime = 40;

TEST(ZPKRegexTest, ACatastrophicPatternGivesUpAsNoMatch) {
  const ZPKRegexPtr regex = compile("(a+)+$");
  const Stopwatch stopwatch;
  EXPECT_FALSE(regex->firstMatch(std::string(64, 'a') + "b").has_value());
  EXPECT_THAT(regex->allMatches(std::string(64 * 1024, 'a') + "b"), IsEmpty());
  EXPECT_EQ(regex->countMatches(std::string(64, 'a') + "b"), 0U);
  EXPECT_LT(stopwatch.seconds(), kBoundedTime);
}

// Each run of letters costs only a fraction of a second, but there are thousands of them.
TEST(ZPKRegexTest, ManyCostlyStartsGiveUpTogether) {
  const Stopwatch stopwatch;
  EXPECT_FALSE(first("(a+)+$", repeated(std::string(20, 'a') + "b", kMiB)).has_value());
  EXPECT_LT(stopwatch.seconds(), kBoundedTime);
}

// Without a match, the search starts at every line of the response and examines all the rest.
TEST(ZPKRegexTest, ALongResponseWithoutTheExpectedPromptGivesUp) {
  const Stopwatch stopwatch;
  EXPECT_FALSE(first("(.|\\n)*prompt", repeated("line of text\n", kMiB) + "t").has_value());
  EXPECT_LT(stopwatch.seconds(), kBoundedTime);
}

TEST(ZPKRegexTest, ASearchThatGaveUpDoesNotSpoilTheNext) {
  const ZPKRegexPtr regex = compile("(a+)+$");
  EXPECT_FALSE(regex->firstMatch(std::string(64, 'a') + "b").has_value());
  const auto match = regex->firstMatch("baaa");
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->range(), (ZPKRange{1, 3}));
}

TEST(ZPKRegexTest, ACatastrophicPatternGivesUpOnALongResponseToo) {
  const ZPKRegexPtr regex = compile("(a+)+$");
  const Stopwatch stopwatch;
  EXPECT_FALSE(regex->firstMatch(std::string(4 * kMiB, 'a') + "b").has_value());
  EXPECT_EQ(regex->countMatches(repeated(std::string(63, 'a') + "b", 4 * kMiB)), 0U);
  EXPECT_LT(stopwatch.seconds(), kBoundedTime);
}

// --- The interpreter, which steps in where the machine forbids compiling at run time. The prefix
// keeps a pattern from being compiled.

ZPKRegexPtr interpreted(const std::string& pattern) { return compile("(*NO_JIT)" + pattern); }

TEST(ZPKRegexTest, TheInterpreterFindsWhatTheCompiledFormFinds) {
  const std::string texts[] = {"", "version 1.25 ok\r\n=> ",
                               std::string(kTwo) + "a\rb" + kThree + "\nb" + kFour + "ab\r\n",
                               std::string("a\0b", 3), "a\xFF"};
  for (const char* pattern :
       {"", "a|b", "(\\d+)\\.(\\d+)", "(?m)^.*$", ".+", "(a)|(b)", "\\s*", "b$"}) {
    const ZPKRegexPtr regex = compile(pattern);
    for (const std::string& text : texts) {
      const std::vector<ZPKRegexMatch> expected = regex->allMatches(text);
      const std::vector<ZPKRegexMatch> matches = interpreted(pattern)->allMatches(text);
      ASSERT_EQ(matches.size(), expected.size()) << pattern << " in " << text;
      for (size_t i = 0; i < matches.size(); ++i) {
        for (size_t group = 0; group < 4; ++group) {
          EXPECT_EQ(matches[i].groupRange(group), expected[i].groupRange(group)) << pattern;
        }
      }
    }
  }
}

TEST(ZPKRegexTest, TheInterpreterSearchesALongResponseToItsEnd) {
  const std::string text = repeated(kThree, 3 * kMiB) + repeated("x", kMiB) + "[end]> ";
  const auto match = interpreted("(?s)^.*\\[(.*)\\]")->firstMatch(text);
  ASSERT_TRUE(match.has_value());
  EXPECT_EQ(match->groupRange(1), (ZPKRange{2 * kMiB + 1, 3}));
}

// Every repetition of the group needs memory, more than a search may use for a text of this length.
TEST(ZPKRegexTest, TheInterpreterGivesUpOnALongRepeatedGroup) {
  const std::string text = repeated("line of text\n", 4 * kMiB) + "prompt";
  const Stopwatch stopwatch;
  EXPECT_FALSE(interpreted("(.|\\n)*prompt")->firstMatch(text).has_value());
  EXPECT_LT(stopwatch.seconds(), kBoundedTime);
  EXPECT_TRUE(interpreted("(.|\\n)*prompt")->firstMatch("line\nprompt").has_value());
}

TEST(ZPKRegexTest, TheInterpreterGivesUpOnACatastrophicPattern) {
  const ZPKRegexPtr regex = interpreted("(a+)+$");
  const Stopwatch stopwatch;
  EXPECT_FALSE(regex->firstMatch(std::string(64, 'a') + "b").has_value());
  EXPECT_LT(stopwatch.seconds(), kBoundedTime);
  EXPECT_TRUE(regex->firstMatch("baaa").has_value());
}

// --- What PCRE2's search for a place to begin gets wrong.

TEST(ZPKRegexTest, AlternativesBeforeARepetitionHideNoMatch) {
  EXPECT_EQ(firstRange("(c|).*?.", "c"), (ZPKRange{0, 1}));
  EXPECT_EQ(firstRange("(c|)\\)*?.", "c"), (ZPKRange{0, 1}));
  EXPECT_EQ(firstRange("(c|)(.)*?.", "c"), (ZPKRange{0, 1}));
  EXPECT_EQ(firstRange("(?:.|)a*?b", "bc"), (ZPKRange{0, 1}));
  EXPECT_EQ(firstRange(".(a|)[ab]*?a", "ca"), (ZPKRange{0, 2}));
  EXPECT_EQ(firstRange("([ab].|.)a*?(){2,}.", "ba"), (ZPKRange{0, 2}));
  EXPECT_THAT(allRanges("((.|.)|([bc]..|)).*((b|.)|(b|.))", "cc\n\nc"),
              ElementsAre(ZPKRange{0, 2}, ZPKRange{4, 1}));
}

TEST(ZPKRegexTest, AnAtomicGroupBeforeARepetitionKeepsWhatItTook) {
  EXPECT_FALSE(first("(?>\\w*|)a", "a\nba").has_value());
  EXPECT_EQ(firstRange("(?>.{2,}|)[ab]", "bbca"), (ZPKRange{3, 1}));
}

TEST(ZPKRegexTest, ALookaheadBeforeARepetitionHidesNoMatch) {
  EXPECT_EQ(firstRange("(?=a)\\w*a", "a"), (ZPKRange{0, 1}));
  EXPECT_EQ(firstRange("(?=b).?b+c*?", "c\nbac"), (ZPKRange{2, 1}));
}

// --- Threads.

TEST(ZPKRegexTest, SeveralThreadsMayUseOneExpression) {
  const ZPKRegexPtr regex = compile("(\\w+)=(\\d+)|(?:x|y)+$");
  const std::string text = std::string(kFour) + " value=42 " + repeated("xy", 8192);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        const std::vector<ZPKRegexMatch> matches = regex->allMatches(text);
        const bool isRight = matches.size() == 2 && matches[0].groupRange(2) == ZPKRange{8, 2} &&
                             matches[1].range() == ZPKRange{11, 8192};
        if (!isRight) wrong.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
