#include <gtest/gtest.h>

#include "ZephalConsole/Internal/PatternSearch.h"

namespace {

using zephal::regex;
using zephal::internal::PatternSearch;
using State = PatternSearch::State;

TEST(PatternSearch, FindsATextByItsPositionInTheStream) {
  PatternSearch search("=> ");
  search.look("ready =", 100, false);
  EXPECT_EQ(search.state(), State::kPartial);
  EXPECT_EQ(search.begin(), 106U);
  search.look("ready => ", 100, false);
  ASSERT_EQ(search.state(), State::kFound);
  EXPECT_EQ(search.groups(), (std::vector<std::pair<uint64_t, uint64_t>>{{106, 109}}));
}

TEST(PatternSearch, TellsTheGroupsOfAnExpressionAndWhichTookNoPart) {
  PatternSearch search(regex("(a)|(b)c"));
  search.look("xbc.", 10, false);
  ASSERT_EQ(search.state(), State::kFound);
  ASSERT_EQ(search.groups().size(), 3U);
  EXPECT_EQ(search.groups()[0].first, 11U);
  EXPECT_EQ(search.groups()[1].first, PatternSearch::kNone);
  EXPECT_EQ(search.groups()[2], (std::pair<uint64_t, uint64_t>{11, 12}));
}

TEST(PatternSearch, KeepsWhatItFound) {
  PatternSearch search("b");
  search.look("ab", 0, false);
  search.look("abb", 0, false);
  EXPECT_EQ(search.begin(), 1U);
}

TEST(PatternSearch, SeesWhatPrecedesAByteThatItAlreadyLookedAt) {
  PatternSearch search(regex("(?<=a)b"));
  search.look("xa", 0, false);
  search.look("xab", 0, false);
  EXPECT_EQ(search.state(), State::kFound);
}

}  // namespace
