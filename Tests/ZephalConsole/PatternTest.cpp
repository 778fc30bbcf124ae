#include <gtest/gtest.h>

#include <stdexcept>

#include "ZephalConsole/Pattern.h"

namespace {

using zephal::Pattern;
using zephal::regex;

TEST(Pattern, SaysWhatItIs) {
  EXPECT_EQ(Pattern("login: ").description(), "\"login: \"");
  EXPECT_EQ(regex("[$#] $").description(), "/[$#] $/");
  EXPECT_FALSE(Pattern("a").isExpression());
  EXPECT_TRUE(regex("a").isExpression());
  EXPECT_EQ(regex("a").source(), "a");
}

TEST(Pattern, CannotBeEmptyAsAText) { EXPECT_THROW(Pattern(""), std::invalid_argument); }

TEST(Pattern, RefusesAWrongExpression) { EXPECT_THROW(regex("("), std::invalid_argument); }

}  // namespace
