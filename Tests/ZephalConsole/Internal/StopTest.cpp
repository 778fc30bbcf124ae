#include <gtest/gtest.h>

#include "ZephalConsole/Internal/Stop.h"

namespace {

using zephal::internal::Deadline;
using zephal::internal::Interventions;
using zephal::internal::Stop;
using namespace std::chrono_literals;

TEST(Stop, SeesOnlyCancelsAfterItsStart) {
  Interventions interventions;
  interventions.cancels = 5;
  const Stop stop(Deadline::after(1h), interventions);
  EXPECT_FALSE(stop.isCancelled());
  EXPECT_FALSE(stop.isOver());
  ++interventions.cancels;
  EXPECT_TRUE(stop.isOver());
  EXPECT_TRUE(stop.isCancelled());
}

TEST(Stop, KeepsItsStartWithADifferentDeadline) {
  Interventions interventions;
  const Stop stop(Deadline::after(1h), interventions);
  ++interventions.cancels;
  const Stop sooner = stop.until(Deadline::after(0s));
  EXPECT_TRUE(sooner.isCancelled());
  EXPECT_TRUE(sooner.deadline().hasPassed());
  EXPECT_FALSE(stop.deadline().hasPassed());
}

TEST(Stop, IsOverAfterAClose) {
  Interventions interventions;
  const Stop stop(Deadline::after(1h), interventions);
  ++interventions.closes;
  EXPECT_TRUE(stop.isClosed());
  EXPECT_TRUE(stop.isOver());
  EXPECT_FALSE(stop.isCancelled());
}

TEST(Stop, AsksTheCallersFunctionAndWaitsBriefly) {
  Interventions interventions;
  const Stop patient(Deadline::after(1h), interventions);
  EXPECT_GT(patient.slice().left(), 30min);
  bool isInterrupted = false;
  interventions.isInterrupted = [&] { return isInterrupted; };
  EXPECT_LE(patient.slice().left(), 100ms);
  EXPECT_FALSE(patient.isOver());
  isInterrupted = true;
  EXPECT_TRUE(patient.isOver());
}

}  // namespace
