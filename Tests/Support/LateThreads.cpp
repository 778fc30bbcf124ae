#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>

#include "Support/EventWait.h"
#include "Support/ProcessStatus.h"

namespace support {

namespace {

size_t threads() { return processStatus("Threads"); }

// A test may end before threads that its objects leave behind: they end by themselves, and close
// and free what they hold. The next test would count it. Threads that have not ended after the
// limit are taken for ones that stay, and no later test waits for them.
class LateThreads : public testing::EmptyTestEventListener {
  void OnTestProgramStart(const testing::UnitTest&) override { _staying = threads(); }

  void OnTestStart(const testing::TestInfo&) override {
    constexpr std::chrono::seconds kLimit{5};
    if (!waitFor([this] { return threads() <= _staying; }, kLimit)) _staying = threads();
  }

  size_t _staying = 0;
};

[[maybe_unused]] const bool isWaitedFor = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new LateThreads);
  return true;
}();

}  // namespace

}  // namespace support
