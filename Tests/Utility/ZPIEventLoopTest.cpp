#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Support/EventWait.h"
#include "Utility/ZPIEventLoop.h"

using namespace support;

namespace {

using testing::ElementsAre;

// A thread with a loop that runs until its source is released; the destructor ends it at the
// latest.
class LoopThread {
 public:
  LoopThread() {
    std::promise<void> isReady;
    _thread = std::thread([this, &isReady] {
      _loop = ZPIEventLoop::current();
      _source = _loop->attachSource();
      isReady.set_value();
      _loop->run();
      _hasEnded = true;
    });
    isReady.get_future().wait();
  }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;
  ~LoopThread() {
    _loop->stop();
    _thread.join();
  }

  ZPIEventLoop& loop() { return *_loop; }
  void releaseTheSource() { _source = nullptr; }
  bool hasEnded() const { return _hasEnded; }
  std::thread::id id() const { return _thread.get_id(); }

  // Returns once all tasks queued before have run.
  void drain() {
    std::promise<void> isDone;
    _loop->perform([&isDone] { isDone.set_value(); });
    EXPECT_EQ(isDone.get_future().wait_for(kPatience), std::future_status::ready);
  }

 private:
  std::thread _thread;
  ZPIEventLoopPtr _loop;
  ZPIEventLoop::Source _source;
  std::atomic<bool> _hasEnded{false};
};

TEST(ZPIEventLoopTest, EachThreadHasOneOfItsOwn) {
  const ZPIEventLoopPtr here = ZPIEventLoop::current();
  EXPECT_EQ(ZPIEventLoop::current(), here);
  ZPIEventLoopPtr there;
  std::thread([&there] { there = ZPIEventLoop::current(); }).join();
  EXPECT_NE(there, nullptr);
  EXPECT_NE(there, here);
}

TEST(ZPIEventLoopTest, ReturnsAtOnceWithNothingToWaitFor) {
  ZPIEventLoop::current()->run();
  SUCCEED();
}

TEST(ZPIEventLoopTest, RunsTheTasksInOrderAndReturns) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  std::vector<int> order;
  for (int number = 1; number <= 3; ++number) {
    loop->perform([&order, number] { order.push_back(number); });
  }
  EXPECT_TRUE(order.empty());
  loop->run();
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST(ZPIEventLoopTest, RunsTasksThatATaskAdds) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  std::vector<std::string> order;
  loop->perform([&] {
    loop->perform([&] { order.emplace_back("inner"); });
    order.emplace_back("outer");
  });
  loop->run();
  EXPECT_THAT(order, ElementsAre("outer", "inner"));
}

TEST(ZPIEventLoopTest, TasksOfOtherThreadsRunOnTheLoopsThread) {
  LoopThread thread;
  std::promise<std::thread::id> ranOn;
  thread.loop().perform([&ranOn] { ranOn.set_value(std::this_thread::get_id()); });
  std::future<std::thread::id> id = ranOn.get_future();
  ASSERT_EQ(id.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(id.get(), thread.id());
}

TEST(ZPIEventLoopTest, WaitsWhileASourceIsAttached) {
  LoopThread thread;
  thread.drain();
  EXPECT_FALSE(thread.hasEnded());
  thread.releaseTheSource();
  EXPECT_TRUE(waitFor([&] { return thread.hasEnded(); }));
}

TEST(ZPIEventLoopTest, WaitsForEverySourceAndEveryCopy) {
  LoopThread thread;
  ZPIEventLoop::Source second = thread.loop().attachSource();
  ZPIEventLoop::Source copy = second;
  thread.releaseTheSource();
  second = nullptr;
  thread.drain();
  EXPECT_FALSE(thread.hasEnded());
  copy = nullptr;
  EXPECT_TRUE(waitFor([&] { return thread.hasEnded(); }));
}

TEST(ZPIEventLoopTest, StopEndsAWait) {
  LoopThread thread;
  thread.drain();
  thread.loop().stop();
  EXPECT_TRUE(waitFor([&] { return thread.hasEnded(); }));
}

TEST(ZPIEventLoopTest, TasksAfterAStopWaitForTheNextRun) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  std::vector<int> order;
  loop->perform([&] {
    order.push_back(1);
    loop->stop();
  });
  loop->perform([&] { order.push_back(2); });
  loop->run();
  EXPECT_THAT(order, ElementsAre(1));
  loop->run();
  EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(ZPIEventLoopTest, AStopBeforeTheRunEndsOnlyThatRun) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  bool hasRun = false;
  loop->perform([&hasRun] { hasRun = true; });
  loop->stop();
  loop->run();
  EXPECT_FALSE(hasRun);
  loop->run();
  EXPECT_TRUE(hasRun);
}

TEST(ZPIEventLoopTest, ATaskIsReleasedAfterItHasRun) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  bool isReleasedByNextTask = false;
  loop->perform([captured = std::move(captured)] {});
  loop->perform([&] { isReleasedByNextTask = weak.expired(); });
  loop->run();
  EXPECT_TRUE(isReleasedByNextTask);
}

TEST(ZPIEventLoopTest, ACapturedObjectsDestructorMayCallTheLoop) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  bool hasRun = false;
  std::shared_ptr<void> calls(nullptr, [&](void*) { loop->perform([&hasRun] { hasRun = true; }); });
  loop->perform([calls = std::move(calls)] {});
  loop->run();
  EXPECT_TRUE(hasRun);
}

TEST(ZPIEventLoopTest, ATaskThatHoldsASourceReleasesItAfterRunning) {
  const ZPIEventLoopPtr loop = ZPIEventLoop::current();
  loop->perform([source = loop->attachSource()] {});
  loop->run();
  SUCCEED();
}

TEST(ZPIEventLoopTest, TasksThatWereNotRunAreDestroyedWithTheThread) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = captured;
  std::thread([&captured] {
    const ZPIEventLoopPtr loop = ZPIEventLoop::current();
    loop->perform([captured = std::move(captured), source = loop->attachSource()] {});
  }).join();
  EXPECT_TRUE(weak.expired());
}

TEST(ZPIEventLoopTest, ASourceMayOutliveItsLoop) {
  ZPIEventLoop::Source source;
  std::thread([&source] { source = ZPIEventLoop::current()->attachSource(); }).join();
  source = nullptr;
  SUCCEED();
}

TEST(ZPIEventLoopTest, ManyThreadsMayQueueTasks) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 500;
  LoopThread thread;
  int sum = 0;  // changed only on the loop's thread
  std::vector<std::thread> givers;
  for (int giver = 0; giver < kThreads; ++giver) {
    givers.emplace_back([&] {
      for (int task = 0; task < kTasks; ++task) thread.loop().perform([&sum] { ++sum; });
    });
  }
  for (std::thread& giver : givers) giver.join();
  thread.drain();
  EXPECT_EQ(sum, kThreads * kTasks);
}

}  // namespace
