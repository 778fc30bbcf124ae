#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <ctime>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "Support/EventWait.h"
#include "Support/ThreadCalls.h"
#include "Utility/ZPIEventLoop.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPKConstants.h"

using namespace support;

namespace {

void join(pthread_t thread) {
  void* result = &thread;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, nullptr);
}

// Runs a callback, whose last action is `end`, on a thread, and cancels the thread on demand. True
// if the callback's captures are released once the thread has ended.
bool releasesWhenItEnds(const std::function<void()>& end, bool cancels = false) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  std::promise<void> isRunning;
  std::promise<void> mayEnd;
  pthread_t thread{};
  newThreadWithBlock(&thread, [&, captured = std::move(captured)] {
    // Something to unwind: only then does AddressSanitizer clear its marks on a stack that a thread
    // leaves early.
    const std::shared_ptr<int> local = captured;
    isRunning.set_value();
    mayEnd.get_future().wait();
    end();
  });
  isRunning.get_future().wait();
  EXPECT_FALSE(weak.expired());
  mayEnd.set_value();
  if (cancels) {
    EXPECT_EQ(pthread_cancel(thread), 0);
  }
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  return weak.expired();
}

TEST(NewThreadWithBlockTest, RunsTheBlockOnAThreadThatCanBeJoined) {
  pthread_t self{};
  pthread_t thread{};
  newThreadWithBlock(&thread, [&self] { self = pthread_self(); });
  ASSERT_TRUE(isThread(thread));
  join(thread);
  EXPECT_NE(pthread_equal(self, thread), 0);
  EXPECT_EQ(pthread_equal(self, pthread_self()), 0);
}

TEST(NewThreadWithBlockTest, TheThreadIsJoinableAndHasTheDefaultStack) {
  pthread_attr_t defaults;
  ASSERT_EQ(pthread_attr_init(&defaults), 0);
  size_t defaultSize = 0;
  ASSERT_EQ(pthread_attr_getstacksize(&defaults, &defaultSize), 0);
  pthread_attr_destroy(&defaults);
  size_t size = 0;
  int detachState = -1;
  int scope = -1;
  pthread_t thread{};
  newThreadWithBlock(&thread, [&] {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_getdetachstate(&attributes, &detachState);
    pthread_attr_getscope(&attributes, &scope);
    pthread_attr_destroy(&attributes);
  });
  join(thread);
  EXPECT_EQ(size, defaultSize);
  EXPECT_EQ(detachState, PTHREAD_CREATE_JOINABLE);
  EXPECT_EQ(scope, PTHREAD_SCOPE_SYSTEM);
}

TEST(NewThreadWithBlockTest, TheCallersOwnCopyMayBeDestroyedFirst) {
  std::promise<void> mayRun;
  int result = 0;
  pthread_t thread{};
  {
    const auto value = std::make_shared<int>(42);
    const std::function<void()> block = [&, value] {
      mayRun.get_future().wait();
      result = *value;
    };
    newThreadWithBlock(&thread, block);
  }
  mayRun.set_value();
  join(thread);
  EXPECT_EQ(result, 42);
}

TEST(NewThreadWithBlockTest, ABlockThatReturnsIsReleased) {
  EXPECT_TRUE(releasesWhenItEnds([] {}));
}

TEST(NewThreadWithBlockTest, ABlockThatExitsTheThreadIsReleased) {
  EXPECT_TRUE(releasesWhenItEnds([] { pthread_exit(nullptr); }));
}

TEST(NewThreadWithBlockTest, ABlockThatIsCancelledIsReleased) {
  const auto waitToBeCancelled = [] {
    for (;;) {
      pthread_testcancel();
      sched_yield();
    }
  };
  EXPECT_TRUE(releasesWhenItEnds(waitToBeCancelled, true));
}

TEST(NewThreadWithBlockTest, TheBlockLivesUntilItsThreadEnds) {
  struct AtThreadEnd {
    std::function<void()> action;
    ~AtThreadEnd() { action(); }
  };
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  bool isThereAfterTheReturn = false;
  pthread_t thread{};
  newThreadWithBlock(&thread, [&, captured = std::move(captured)] {
    thread_local const AtThreadEnd end{[&] { isThereAfterTheReturn = !weak.expired(); }};
    EXPECT_TRUE(end.action != nullptr);
  });
  join(thread);
  EXPECT_TRUE(isThereAfterTheReturn);
  EXPECT_TRUE(weak.expired());
}

TEST(NewThreadWithBlockTest, ManyThreadsMayStartAtTheSameTime) {
  constexpr int kStarters = 4;
  constexpr int kThreads = 20;
  std::atomic<int> runs{0};
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  std::vector<std::thread> starters;
  for (int starter = 0; starter < kStarters; ++starter) {
    starters.emplace_back([&runs, captured] {
      for (int count = 0; count < kThreads; ++count) {
        pthread_t thread{};
        newThreadWithBlock(&thread, [&runs, captured] { ++runs; });
        join(thread);
      }
    });
  }
  for (std::thread& starter : starters) starter.join();
  captured = nullptr;
  EXPECT_EQ(runs, kStarters * kThreads);
  EXPECT_TRUE(weak.expired());
}

TEST(NewThreadWithBlockTest, AFailedStartLeavesZeroAndReleasesTheBlock) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  std::atomic<bool> hasRun{false};
  pthread_t thread = pthread_self();
  const RefusedThreads refused;
  newThreadWithBlock(&thread, [&hasRun, captured = std::move(captured)] { hasRun = true; });
  EXPECT_FALSE(isThread(thread));
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(hasRun);
}

TEST(IsThreadTest, ZeroIsNotAThread) {
  EXPECT_FALSE(isThread(pthread_t()));
  EXPECT_TRUE(isThread(pthread_self()));
}

TEST(BlockStartTest, ReturnsNullAndReleasesTheBlockWithTheThread) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  bool hasRun = false;
  bool isHeldAfterwards = false;
  auto* const block =
      new std::function<void()>([&hasRun, captured = std::move(captured)] { hasRun = true; });
  std::thread([&] {
    EXPECT_EQ(block_start__(block), nullptr);
    isHeldAfterwards = !weak.expired();
  }).join();
  EXPECT_TRUE(hasRun);
  EXPECT_TRUE(isHeldAfterwards);
  EXPECT_TRUE(weak.expired());
}

TEST(BlockDisposeTest, ReleasesTheBlockAndDoesNotRunIt) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  bool hasRun = false;
  block_dispose(
      new std::function<void()>([&hasRun, captured = std::move(captured)] { hasRun = true; }));
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(hasRun);
}

void expectPlainMutex(pthread_mutex_t* mutex) {
  EXPECT_EQ(pthread_mutex_lock(mutex), 0);
  EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY);  // not recursive
  EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
}

TEST(MutexObjectsTest, TheMutexIsPlain) {
  pthread_mutex_t mutex;
  buildMutexObjects(&mutex);
  expectPlainMutex(&mutex);
  destroyMutexObjects(&mutex);
}

TEST(ConditionObjectsTest, ThePlainMutexsConditionUsesTheWallClock) {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  buildConditionObjects(&mutex, &condition);
  expectPlainMutex(&mutex);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  pthread_mutex_lock(&mutex);
  // A monotonic clock would take decades to get there.
  EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &now), ETIMEDOUT);
  pthread_mutex_unlock(&mutex);
  destroyConditionObjects(&mutex, &condition);
}

TEST(ConditionObjectsTest, ASignalEndsAWait) {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  buildConditionObjects(&mutex, &condition);
  bool isSignalled = false;
  std::thread signaller;
  {
    const ZPIMutexHold hold(&mutex);
    signaller = std::thread([&] {
      const ZPIMutexHold otherHold(&mutex);
      isSignalled = true;
      pthread_cond_signal(&condition);
    });
    while (!isSignalled) pthread_cond_wait(&condition, &mutex);
  }
  signaller.join();
  EXPECT_TRUE(isSignalled);
  destroyConditionObjects(&mutex, &condition);
}

TEST(ZPIMutexHoldTest, ReleasesTheMutexWhenTheWaitIsCancelled) {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  buildConditionObjects(&mutex, &condition);
  bool isWaiting = false;
  pthread_t thread{};
  newThreadWithBlock(&thread, [&] {
    const ZPIMutexHold hold(&mutex);
    isWaiting = true;
    for (;;) pthread_cond_wait(&condition, &mutex);
  });
  // Once the mutex is free and the flag is set, the thread is inside its wait.
  EXPECT_TRUE(waitFor([&] {
    const ZPIMutexHold hold(&mutex);
    return isWaiting;
  }));
  pthread_cancel(thread);
  pthread_join(thread, nullptr);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  destroyConditionObjects(&mutex, &condition);
}

// A block that waits until the test releases it, and shows when its thread has ended.
class HeldBlock {
 public:
  std::function<bool()> block(bool result) {
    return [state = _state, end = _end, result] {
      state->isRunning.set_value();
      state->mayEnd.get_future().wait();
      return result;
    };
  }

  void waitUntilItRuns() { _state->isRunning.get_future().wait(); }
  void release() { _state->mayEnd.set_value(); }
  // The block's captures are released with its thread.
  bool waitForTheEndOfTheThread() {
    const std::weak_ptr<int> weak = std::exchange(_end, nullptr);
    return waitFor([&] { return weak.expired(); });
  }

 private:
  struct State {
    std::promise<void> isRunning;
    std::promise<void> mayEnd;
  };

  const std::shared_ptr<State> _state = std::make_shared<State>();
  std::shared_ptr<int> _end = std::make_shared<int>(1);
};

TEST(RunBlockOnNewThreadWithRunLoopTest, ForeverWaitsUntilTheBlockReturns) {
  HeldBlock held;
  std::future<bool> answer = std::async(std::launch::async, [&] {
    return runBlockOnNewThreadWithRunLoop(held.block(true), ZEPHAL_COMMUNICATION_TIME_FOREVER);
  });
  held.waitUntilItRuns();
  EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  held.release();
  ASSERT_EQ(answer.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(answer.get());
}

TEST(RunBlockOnNewThreadWithRunLoopTest, RunsTheBlockOnAnotherThread) {
  std::promise<std::thread::id> ranOn;
  EXPECT_TRUE(runBlockOnNewThreadWithRunLoop(
      [&ranOn] {
        ranOn.set_value(std::this_thread::get_id());
        return true;
      },
      30.0));
  EXPECT_NE(ranOn.get_future().get(), std::this_thread::get_id());
}

TEST(RunBlockOnNewThreadWithRunLoopTest, AFalseBlockReturnsFalseAndEndsItsThread) {
  for (const double timeout : {30.0, ZEPHAL_COMMUNICATION_TIME_FOREVER}) {
    auto end = std::make_shared<int>(1);
    const std::weak_ptr<int> weak = end;
    ZPIEventLoop::Source source;
    const bool answer = runBlockOnNewThreadWithRunLoop(
        [&source, end = std::move(end)] {
          source = ZPIEventLoop::current()->attachSource();  // would keep a loop waiting
          return false;
        },
        timeout);
    EXPECT_FALSE(answer);
    EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
  }
}

TEST(RunBlockOnNewThreadWithRunLoopTest, ALateFalseEndsTheThread) {
  HeldBlock held;
  EXPECT_FALSE(runBlockOnNewThreadWithRunLoop(held.block(false), 0.01));
  held.release();
  EXPECT_TRUE(held.waitForTheEndOfTheThread());
}

TEST(RunBlockOnNewThreadWithRunLoopTest, ATrueBlockWithNothingAttachedEndsItsThread) {
  auto end = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = end;
  EXPECT_TRUE(runBlockOnNewThreadWithRunLoop([end = std::move(end)] { return true; },
                                             ZEPHAL_COMMUNICATION_TIME_FOREVER));
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST(RunBlockOnNewThreadWithRunLoopTest, WorkThatTheBlockAttachedKeepsTheThreadAlive) {
  auto end = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = end;
  ZPIEventLoopPtr loop;
  ZPIEventLoop::Source source;
  std::thread::id blockThread;
  ASSERT_TRUE(runBlockOnNewThreadWithRunLoop(
      [&, end = std::move(end)] {
        loop = ZPIEventLoop::current();
        source = loop->attachSource();
        blockThread = std::this_thread::get_id();
        return true;
      },
      30.0));
  std::promise<std::thread::id> ranOn;
  loop->perform([&ranOn] { ranOn.set_value(std::this_thread::get_id()); });
  EXPECT_EQ(ranOn.get_future().get(), blockThread);
  EXPECT_FALSE(weak.expired());
  source = nullptr;
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST(RunBlockOnNewThreadWithRunLoopTest, ATaskThatTheBlockAttachedRuns) {
  std::promise<void> hasRun;
  EXPECT_TRUE(runBlockOnNewThreadWithRunLoop(
      [&hasRun] {
        ZPIEventLoop::current()->perform([&hasRun] { hasRun.set_value(); });
        return true;
      },
      30.0));
  EXPECT_EQ(hasRun.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(RunBlockOnNewThreadWithRunLoopTest, StoppingTheLoopEndsTheThread) {
  auto end = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = end;
  ZPIEventLoopPtr loop;
  ZPIEventLoop::Source source;
  ASSERT_TRUE(runBlockOnNewThreadWithRunLoop(
      [&, end = std::move(end)] {
        loop = ZPIEventLoop::current();
        source = loop->attachSource();
        return true;
      },
      30.0));
  loop->stop();
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST(RunBlockOnNewThreadWithRunLoopTest, AZeroTimeoutReturnsFalseButTheBlockStillRuns) {
  for (const double timeout : {0.0, -0.5, -2.0, std::nan("")}) {
    HeldBlock held;
    EXPECT_FALSE(runBlockOnNewThreadWithRunLoop(held.block(true), timeout)) << timeout;
    held.waitUntilItRuns();
    held.release();
    EXPECT_TRUE(held.waitForTheEndOfTheThread()) << timeout;
  }
}

TEST(RunBlockOnNewThreadWithRunLoopTest, AfterATimeoutTheBlockContinuesIntoItsLoop) {
  HeldBlock held;
  std::promise<void> hasRun;
  const auto block = [inner = held.block(true), &hasRun] {
    ZPIEventLoop::current()->perform([&hasRun] { hasRun.set_value(); });
    return inner();
  };
  EXPECT_FALSE(runBlockOnNewThreadWithRunLoop(block, 0.01));
  held.release();
  EXPECT_EQ(hasRun.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(RunBlockOnNewThreadWithRunLoopTest, AHugeTimeoutWaits) {
  for (const double timeout : {1e300, std::numeric_limits<double>::infinity()}) {
    EXPECT_TRUE(runBlockOnNewThreadWithRunLoop([] { return true; }, timeout)) << timeout;
  }
}

TEST(RunBlockOnNewThreadWithRunLoopTest, AThreadThatCannotStartReturnsFalseImmediately) {
  const RefusedThreads refused;
  EXPECT_FALSE(
      runBlockOnNewThreadWithRunLoop([] { return true; }, ZEPHAL_COMMUNICATION_TIME_FOREVER));
}

}  // namespace
