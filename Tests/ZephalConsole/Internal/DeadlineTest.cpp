#include <gtest/gtest.h>

#include <limits>

#include "ZephalConsole/Internal/Deadline.h"

namespace {

using zephal::internal::Deadline;
using namespace std::chrono_literals;

TEST(Deadline, HasPassedAfterNoTimeOrLess) {
  EXPECT_TRUE(Deadline::after(0s).hasPassed());
  EXPECT_TRUE(Deadline::after(-5s).hasPassed());
  EXPECT_EQ(Deadline::after(-5s).milliseconds(), 0);
}

TEST(Deadline, RoundsWhatIsLeftUp) {
  const Deadline deadline = Deadline::after(30s);
  EXPECT_FALSE(deadline.hasPassed());
  EXPECT_GT(deadline.milliseconds(), 0);
  EXPECT_LE(deadline.milliseconds(), 30000);
}

TEST(Deadline, TakesAnyLengthOfTime) {
  const Deadline::Seconds forever(std::numeric_limits<double>::infinity());
  EXPECT_FALSE(Deadline::after(forever).hasPassed());
  EXPECT_EQ(Deadline::after(forever).milliseconds(), std::numeric_limits<int>::max());
}

}  // namespace
