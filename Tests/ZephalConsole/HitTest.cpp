#include <gtest/gtest.h>

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

TEST(Hit, RefusesWhatIsNotANumber) {
  for (const char* text : {"", " ", "volts", "3.25 V", "--1", "0x", "1,5"}) {
    EXPECT_THROW(hitWith(text).number(), std::invalid_argument) << text;
  }
  EXPECT_THROW(hitWith("1").number(7), std::out_of_range);
}

}  // namespace
