#include <gtest/gtest.h>

#include <future>

#include "Support/SignalMask.h"
#include "Utility/ZPIBlockedSignals.h"

using namespace support;

namespace {

sigset_t setOf(int signal) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, signal);
  return signals;
}

TEST(ZPIBlockedSignalsTest, BlocksTheSignalsWhileItLives) {
  {
    const ZPIBlockedSignals blocked(setOf(SIGUSR1));
    EXPECT_TRUE(isBlocked(SIGUSR1));
    EXPECT_FALSE(isBlocked(SIGUSR2));
  }
  EXPECT_FALSE(isBlocked(SIGUSR1));
}

TEST(ZPIBlockedSignalsTest, ASignalThatWasBlockedStaysBlocked) {
  const ZPIBlockedSignals outer(setOf(SIGUSR1));
  { const ZPIBlockedSignals inner(setOf(SIGUSR1)); }
  EXPECT_TRUE(isBlocked(SIGUSR1));
}

TEST(ZPIBlockedSignalsTest, AThreadStartedMeanwhileNeverReceivesThem) {
  std::future<bool> thread;
  {
    const ZPIBlockedSignals blocked(setOf(SIGUSR1));
    thread = std::async(std::launch::async, [] { return isBlocked(SIGUSR1); });
  }
  EXPECT_TRUE(thread.get());
  EXPECT_FALSE(isBlocked(SIGUSR1));
}

}  // namespace
