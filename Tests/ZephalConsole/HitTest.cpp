#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "ZephalConsole/Hit.h"

namespace {

using zephal::Hit;

Hit hitWith(std::string group) {
  Hit hit;
  hit.groups = {"match", std::move(group), std::nullopt};
  return hit;
}

TEST(Hit, GivesGroupsAndEmptyTextForOneThatTookNoPart) {
  const Hit hit = hitWith("one");
  EXPECT_EQ(hit.text(), "match");
  EXPECT_EQ(hit.group(1), "one");
  EXPECT_EQ(hit.group(2), "");
  EXPECT_THROW(hit.group(3), std::out_of_range);
}

TEST(Hit, ReadsNumbersInTheUsualForms) {
  EXPECT_EQ(hitWith("3.25").number(), 3.25);
  EXPECT_EQ(hitWith(" -2 \r").number(), -2);
  EXPECT_EQ(hitWith("+1e3").number(), 1000);
  EXPECT_EQ(hitWith("0x1F").number(), 31);
  EXPECT_EQ(hitWith("-0x10").number(), -16);
}

TEST(Hit, ReadsNumbersExactly) {
  EXPECT_EQ(hitWith("0.1").number(), 0.1);
  EXPECT_EQ(hitWith("9007199254740993").number(), 9007199254740992);  // a tie, to the even one
  EXPECT_EQ(hitWith("1.7976931348623157e308").number(), std::numeric_limits<double>::max());
  EXPECT_EQ(hitWith("4.9e-324").number(), std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(hitWith("-0x1.8p-1").number(), -0.75);
  EXPECT_TRUE(std::signbit(hitWith("-0").number()));
  EXPECT_EQ(hitWith("-inf").number(), -std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(hitWith("NaN").number()));
}

TEST(Hit, RefusesWhatIsNotANumber) {
  for (const char* text : {"",       " ",      "volts",    "3.25 V",    "--1", "+-1", "0x",
                           "0x-1",   "0xinf",  "1,5",      "1e",        ".",   "1 2", "1e309",
                           "-1e309", "1e-324", "0x1p1024", "0x1p-1076", "\v1", "\f1", "1\v"}) {
    EXPECT_THROW(hitWith(text).number(), std::invalid_argument) << text;
  }
  EXPECT_THROW(hitWith(std::string("1\0", 2)).number(), std::invalid_argument);
  EXPECT_THROW(hitWith("1").number(7), std::out_of_range);
}

}  // namespace
