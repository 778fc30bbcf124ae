#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

#include "Data Transformers Internal/ZPIGapWatch.h"
#include "Support/TestClock.h"

using namespace support;

namespace {

using testing::ElementsAre;

class WatchAtWill {
 public:
  explicit WatchAtWill(double timeout) : _watch(timeout, [this] { _firings.push_back(_now); }) {}

  void callAt(double seconds) {
    _clock.advance(nanoseconds(seconds) - _clock.passed());
    _now = seconds;
    _watch.noteCall();
  }

  // When the callback ran.
  const std::vector<double>& firings() const { return _firings; }

 private:
  static std::chrono::nanoseconds nanoseconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(seconds));
  }

  TestClock _clock;
  double _now = 0;
  std::vector<double> _firings;
  ZPIGapWatch _watch;
};

TEST(ZPIGapWatchTest, FiresAfterALongGapAndThenStartsAfresh) {
  WatchAtWill watch(1.0);
  for (const double time : {0.0, 0.5, 1.2, 2.5, 4.0}) watch.callAt(time);
  EXPECT_THAT(watch.firings(), ElementsAre(2.5));
  watch.callAt(4.9);
  EXPECT_THAT(watch.firings(), ElementsAre(2.5));
  watch.callAt(6.0);
  EXPECT_THAT(watch.firings(), ElementsAre(2.5, 6.0));
}

TEST(ZPIGapWatchTest, TheFirstCallNeverFires) {
  WatchAtWill watch(0.001);
  watch.callAt(500.0);
  EXPECT_THAT(watch.firings(), ElementsAre());
}

TEST(ZPIGapWatchTest, AGapOfExactlyTheTimeoutFires) {
  WatchAtWill watch(1.0);
  watch.callAt(0.0);
  watch.callAt(1.0);
  EXPECT_THAT(watch.firings(), ElementsAre(1.0));
}

TEST(ZPIGapWatchTest, FrequentCallsNeverFireHoweverLongTheyGoOn) {
  WatchAtWill watch(1.0);
  for (int i = 0; i < 100; ++i) watch.callAt(0.9 * i);
  EXPECT_THAT(watch.firings(), ElementsAre());
}

TEST(ZPIGapWatchTest, ATimeoutThatIsNotANumberNeverFires) {
  WatchAtWill watch(std::nan(""));
  for (const double time : {0.0, 1.0, 1e6}) watch.callAt(time);
  EXPECT_THAT(watch.firings(), ElementsAre());
}

TEST(ZPIGapWatchTest, AnInfiniteTimeoutNeverFires) {
  WatchAtWill watch(std::numeric_limits<double>::infinity());
  for (const double time : {0.0, 1.0, 1e6}) watch.callAt(time);
  EXPECT_THAT(watch.firings(), ElementsAre());
}

TEST(ZPIGapWatchTest, TheGapIsOverWhenTheCallbackRuns) {
  TestClock clock;
  int firings = 0;
  ZPIGapWatch* inner = nullptr;
  ZPIGapWatch watch(1.0, [&] {
    if (++firings == 1) inner->noteCall();
  });
  inner = &watch;
  watch.noteCall();
  clock.advance(std::chrono::seconds(2));
  watch.noteCall();
  EXPECT_EQ(firings, 1);
}

// Setting the machine's time back or ahead does not end a gap.
TEST(ZPIGapWatchTest, TheWallClockDoesNotMatter) {
  TestClock clock;
  int firings = 0;
  ZPIGapWatch watch(1.0, [&firings] { ++firings; });
  watch.noteCall();
  clock.setWallTime(std::chrono::system_clock::now() + std::chrono::hours(1));
  watch.noteCall();
  EXPECT_EQ(firings, 0);
}

}  // namespace
