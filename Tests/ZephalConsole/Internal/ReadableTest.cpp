#include <gtest/gtest.h>

#include "ZephalConsole/Internal/Readable.h"

namespace {

using zephal::internal::readableEnd;
using zephal::internal::readablePattern;

TEST(Readable, EscapesWhatATerminalWouldNotShow) {
  EXPECT_EQ(readableEnd("a\r\n\t\"\\\x1b\xff"), R"("a\r\n\t\"\\\x1b\xff")");
}

TEST(Readable, ShowsTheEndOfALongText) {
  const std::string shown = readableEnd(std::string(1000, 'a') + "end");
  EXPECT_TRUE(shown.starts_with("... \"a")) << shown;
  EXPECT_TRUE(shown.ends_with("end\"")) << shown;
  EXPECT_LT(shown.size(), 220U);
}

TEST(Readable, SaysThatThereIsNothing) { EXPECT_EQ(readableEnd(""), "nothing"); }

TEST(Readable, ShowsAPatternAlmostAsItIs) {
  EXPECT_EQ(readablePattern("[\\d\"]+\n\xff"), R"([\d"]+\n\xff)");
}

}  // namespace
