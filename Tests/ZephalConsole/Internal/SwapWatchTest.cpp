#include <gtest/gtest.h>

#include "ZephalConsole/Internal/SwapWatch.h"

namespace {

using zephal::internal::SwapWatch;

constexpr uint64_t kExpected = 0x0000BEEF0BADF00D;
constexpr std::string_view kOther = "version 1\n[0000BEEF:00000001] :-) > ";

TEST(SwapWatch, NoticesADifferentDeviceHoweverItsPromptIsCut) {
  for (size_t piece = 1; piece <= kOther.size(); ++piece) {
    SwapWatch watch(kExpected);
    for (size_t at = 0; at < kOther.size(); at += piece) watch.look(kOther.substr(at, piece));
    EXPECT_EQ(watch.swap(),
              "expected the device [0000BEEF:0BADF00D], but [0000BEEF:00000001] has answered")
        << piece;
  }
}

TEST(SwapWatch, AcceptsTheExpectedDevice) {
  SwapWatch watch(kExpected);
  watch.look("[0000BEEF:0BADF00D] :-) > ");
  EXPECT_EQ(watch.swap(), std::nullopt);
}

TEST(SwapWatch, NoticesTheSecondOfTwoPromptsThatArriveTogether) {
  SwapWatch watch(kExpected);
  watch.look("[0000BEEF:0BADF00D] :-) > [0000BEEF:00000001] :-) > ");
  EXPECT_NE(watch.swap(), std::nullopt);
}

TEST(SwapWatch, DoesNothingWithoutAnExpectation) {
  SwapWatch watch(std::nullopt);
  watch.look(kOther);
  EXPECT_EQ(watch.swap(), std::nullopt);
}

TEST(SwapWatch, ForgetsASwapAfterReset) {
  SwapWatch watch(kExpected);
  watch.look(kOther);
  watch.reset();
  EXPECT_EQ(watch.swap(), std::nullopt);
}

}  // namespace
