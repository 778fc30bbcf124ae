// Every system call, allocation and thread start of the scenarios fails once, in every way.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>

#include "Faults/FaultPairs.h"
#include "Faults/FaultTable.h"
#include "Faults/Scenarios.h"
#include "Support/EventWait.h"
#include "Support/TestClock.h"
#include "ZephalLogging.h"

using namespace support;

namespace {

// The time of the code under test runs thirty times as fast as the real time.
class FastTime {
 public:
  FastTime() : _thread([this] { run(); }) {}
  FastTime(const FastTime&) = delete;
  FastTime& operator=(const FastTime&) = delete;
  ~FastTime() {
    _isOver = true;
    _thread.join();
  }

 private:
  void run() {
    const CallsWatched unwatched(false);
    const RealTime realTime;
    while (!_isOver) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      _clock.advance(std::chrono::milliseconds(30));
    }
  }

  TestClock _clock;
  std::atomic<bool> _isOver{false};
  std::thread _thread;
};

int numberFrom(const char* variable, int otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::atoi(text);
}

class FaultsTest : public testing::TestWithParam<Scenario> {
 protected:
  FaultsTest() {
    ZPKLoggingSetSink([](int, std::string_view) {});
    // A simulated device waits for real peers.
    if (!GetParam().name.starts_with("Simulator")) time.emplace();
    traceOf({Fault::Kind::kCall, "", 0, 0}, GetParam().run);  // fills what the program keeps anyway
  }
  ~FaultsTest() override { ZPKLoggingSetSink(nullptr); }

  static void TearDownTestSuite() {
    std::printf("Faults: %zu cases, %d repeats\n", caseCount, repeats);
  }

  /// One trial. Returns whether the fault happened.
  bool tryFault(const Fault& fault) {
    std::vector<std::string> problems;
    const bool happened = runTrial(fault, GetParam().run, &problems);
    // Once more, since a scenario may also fill something that stays for the whole program, or a
    // device that was told to hang up does so late. What happens more often is a failure.
    if (!problems.empty() && repeats++ < kMostRepeats) runTrial(fault, GetParam().run, &problems);
    for (const std::string& problem : problems) ADD_FAILURE() << fault.text() << ": " << problem;
    if (happened) ++caseCount;
    return happened;
  }

  /// Trials with the first call failing, then with the second, until there are no more.
  void tryEach(Fault fault, const std::vector<int>& errors) {
    for (bool happens = true; happens && !HasFailure(); ++fault.skip) {
      for (size_t i = 0; i < errors.size() && happens; ++i) {
        fault.error = errors[i];
        fault.isMade = isMadeAnyway(fault, GetParam().name);
        happens = tryFault(fault);
      }
    }
  }

  std::optional<FastTime> time;

 private:
  static constexpr int kMostRepeats = 5;

  static inline size_t caseCount = 0;
  static inline int repeats = 0;
};

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultsTest, testing::ValuesIn(allFaultScenarios()),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(FaultsTest, FailedCallsAreReportedAndLeaveNothingBehind) {
  for (const FaultRow& row : faultTable()) {
    tryEach({Fault::Kind::kCall, row.call, 0, 0}, row.errors);
  }
}

TEST_P(FaultsTest, ShortTransfersAreNotNoticed) {
  for (const char* call : {"read", "write", "send"}) {
    tryEach({Fault::Kind::kShort, call, 0, 0}, {0});
    tryFault({Fault::Kind::kAllShort, call, 0, 0});
  }
}

TEST_P(FaultsTest, LackOfMemoryLeavesNothingBehind) {
  tryEach({Fault::Kind::kAllocation, "", ENOMEM, 0}, {ENOMEM});
}

// ZEPHAL_FAULT_PAIRS is how many of each scenario, ZEPHAL_FAULT_SEED where their choice begins.
TEST_P(FaultsTest, TwoFaultsLeaveNothingBehind) {
  const int count = numberFrom("ZEPHAL_FAULT_PAIRS", 20);
  const int seed = numberFrom("ZEPHAL_FAULT_SEED", 1);
  FaultPairs pairs(GetParam(), seed);
  for (int i = 0; i < count && !HasFailure(); ++i) {
    const std::optional<Fault> fault = pairs.next();
    if (fault.has_value()) tryFault(*fault);
  }
  if (HasFailure()) std::printf("Faults: the seed is %d\n", seed);
}

TEST_P(FaultsTest, ThreadsThatCannotStartAreReported) {
  tryEach({Fault::Kind::kThread, "", EAGAIN, 0}, {EAGAIN, EINVAL, EPERM});
}

}  // namespace
