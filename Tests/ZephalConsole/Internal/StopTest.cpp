#include <gtest/gtest.h>

#include "ZephalConsole/Internal/Stop.h"

namespace {

using zephal::internal::Deadline;
using zephal::internal::Stop;
using namespace std::chrono_literals;

TEST(Stop, SeesOnlyCancelsAfterItsStart) {
  std::atomic<uint64_t> cancels = 5;
  const Stop stop(Deadline::after(1h), cancels);
  EXPECT_FALSE(stop.isCancelled());
  ++cancels;
  EXPECT_TRUE(stop.isCancelled());
}

TEST(Stop, KeepsItsStartWithADifferentDeadline) {
  std::atomic<uint64_t> cancels = 0;
  const Stop stop(Deadline::after(1h), cancels);
  ++cancels;
  const Stop sooner = stop.until(Deadline::after(0s));
  EXPECT_TRUE(sooner.isCancelled());
  EXPECT_TRUE(sooner.deadline().hasPassed());
  EXPECT_FALSE(stop.deadline().hasPassed());
}

}  // namespace
