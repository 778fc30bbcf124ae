#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "Data Transformers Internal/ZPIGapWatch.h"

namespace {

using testing::ElementsAre;

// A watch on a clock that stands still until it is set.
class WatchAtWill {
 public:
  explicit WatchAtWill(double timeout)
      : _watch(
            timeout, [this] { _firings.push_back(_now); }, [this] { return timePoint(); }) {}

  void callAt(double seconds) {
    _now = seconds;
    _watch.noteCall();
  }

  // When the callback ran.
  const std::vector<double>& firings() const { return _firings; }

 private:
  ZPIGapWatch::TimePoint timePoint() const {
    const std::chrono::duration<double> time(1000.0 + _now);
    return ZPIGapWatch::TimePoint(
        std::chrono::duration_cast<ZPIGapWatch::TimePoint::duration>(time));
  }

  double _now = 0;
  std::vector<double> _firings;
  ZPIGapWatch _watch;
};

TEST(ZPIGapWatchTest, FiresAtTheEndOfALongGapAndMeasuresAfreshFromTheNextCall) {
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

TEST(ZPIGapWatchTest, CallsThatComeOftenEnoughNeverFireHoweverLongTheyGoOn) {
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
  int depth = 0;
  int firings = 0;
  ZPIGapWatch* inner = nullptr;
  ZPIGapWatch::TimePoint now{};
  ZPIGapWatch watch(
      1.0,
      [&] {
        ++firings;
        if (++depth == 1) inner->noteCall();
      },
      [&] { return now; });
  inner = &watch;
  watch.noteCall();
  now += std::chrono::seconds(2);
  watch.noteCall();
  EXPECT_EQ(firings, 1);
}

}  // namespace
