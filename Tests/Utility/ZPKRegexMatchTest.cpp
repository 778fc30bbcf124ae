#include <gtest/gtest.h>

#include "Utility/ZPKRegexMatch.h"

namespace {

TEST(ZPKRegexMatchTest, TheWholeMatchIsGroupZero) {
  const ZPKRegexMatch match({{2, 5}, {3, 1}});
  EXPECT_EQ(match.range(), (ZPKRange{2, 5}));
  EXPECT_EQ(match.groupRange(0), match.range());
  EXPECT_EQ(match.groupRange(1), (ZPKRange{3, 1}));
}

TEST(ZPKRegexMatchTest, AGroupThatThePatternLacksIsNotFound) {
  const ZPKRegexMatch match({{2, 5}});
  EXPECT_EQ(match.groupRange(1).location, ZPKNotFound);
  EXPECT_EQ(match.groupRange(SIZE_MAX).location, ZPKNotFound);
  EXPECT_EQ(ZPKRegexMatch({}).range().location, ZPKNotFound);
}

}  // namespace
