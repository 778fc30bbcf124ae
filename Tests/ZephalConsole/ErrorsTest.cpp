#include <gtest/gtest.h>

#include "ZephalConsole/Errors.h"

namespace {

using namespace zephal;

TEST(Errors, TimeoutSaysWhatItWaitedForAndWhatHadArrived) {
  const Timeout error("timed out", ErrorCode::kTimeout, "tcp://lab:1", "\"=> \"", "boot\n");
  EXPECT_STREQ(error.what(),
               "tcp://lab:1: timed out while waiting for \"=> \"; received: \"boot\\n\"");
  EXPECT_EQ(error.domain(), "zephal-console");
  EXPECT_EQ(error.code(), 2);
  EXPECT_EQ(error.url(), "tcp://lab:1");
  EXPECT_EQ(error.waitedFor(), "\"=> \"");
  EXPECT_EQ(error.received(), "boot\n");
}

TEST(Errors, NoMatchShowsTheAnswer) {
  const NoMatch error("no /x/", "unix:///s", "y\n");
  EXPECT_STREQ(error.what(), "unix:///s: no /x/; the answer: \"y\\n\"");
  EXPECT_EQ(error.answer(), "y\n");
  EXPECT_EQ(error.code(), 7);
}

TEST(Errors, AreAllRuntimeErrors) {
  EXPECT_THROW(throw Timeout("t", ErrorCode::kTimeout, "", "", ""), WaitError);
  EXPECT_THROW(throw Disconnected("t", ErrorCode::kDisconnected, "", "", ""), WaitError);
  EXPECT_THROW(throw OpenError("o", "POSIX", 2, ""), std::runtime_error);
  EXPECT_THROW(throw DeviceSwapped("s", "", 4, ""), Error);
  EXPECT_THROW(throw Cancelled("c", "", 5, ""), Error);
  EXPECT_THROW(throw LoginRefused("l", "", 6, ""), Error);
}

}  // namespace
