#include <gtest/gtest.h>

#include "Utility/ZPKString.h"
#include "Utility/ZPKValue.h"

namespace {

TEST(ZPKStringTest, HoldsItsTextUnchanged) {
  EXPECT_EQ(ZPKString::init("")->value(), "");
  EXPECT_EQ(ZPKString::init("a\"b\n")->value(), "a\"b\n");
  EXPECT_EQ(ZPKString::init(std::string("a\0b", 3))->value().size(), 3U);
  EXPECT_EQ(ZPKString::init("\xff")->value(), "\xff");
}

TEST(ZPKStringTest, IsDescribedByItsText) {
  EXPECT_EQ(ZPKString::init("a\"b")->debugDescription(), "a\"b");
}

TEST(ZPKStringTest, EqualsTheSameTextAndNothingElse) {
  const ZPKStringPtr string = ZPKString::init("1");
  EXPECT_TRUE(string->isEqual(*ZPKString::init("1")));
  EXPECT_FALSE(string->isEqual(*ZPKString::init("")));
  EXPECT_FALSE(string->isEqual(*ZPKValue(1).object()));
}

}  // namespace
