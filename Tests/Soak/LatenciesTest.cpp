#include <gtest/gtest.h>

#include "Soak/Latencies.h"

namespace {

using std::chrono::microseconds;

TEST(LatenciesTest, PercentilesAreWithinAThirtySecond) {
  soak::Latencies latencies;
  for (int value = 1; value <= 100000; ++value) latencies.add(microseconds(value));
  EXPECT_EQ(latencies.count(), 100000U);
  EXPECT_NEAR(latencies.milliseconds(0.5), 50, 50.0 / 32);
  EXPECT_NEAR(latencies.milliseconds(0.99), 99, 99.0 / 32);
  EXPECT_EQ(latencies.longestMilliseconds(), 100);
  EXPECT_EQ(latencies.milliseconds(1), 100);
}

TEST(LatenciesTest, EveryDurationHasAPlace) {
  soak::Latencies latencies;
  latencies.add(microseconds(0));
  latencies.add(std::chrono::hours(100));
  EXPECT_EQ(latencies.count(), 2U);
  EXPECT_EQ(latencies.longestMilliseconds(), 360e6);
}

}  // namespace
