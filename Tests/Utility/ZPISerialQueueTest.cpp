#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Support/EventWait.h"
#include "Support/ProcessThreads.h"
#include "Support/ThreadCalls.h"
#include "Utility/ZPISerialQueue.h"

using namespace support;

namespace {

using testing::ElementsAre;

// A task that reports that it runs and then waits to be released.
class Gate {
 public:
  ZPISerialQueue::Task task() {
    return [this] {
      _entered.set_value();
      _released.get_future().wait_for(kPatience);
    };
  }
  bool waitUntilEntered() {
    return _entered.get_future().wait_for(kPatience) == std::future_status::ready;
  }
  void release() { _released.set_value(); }

 private:
  std::promise<void> _entered;
  std::promise<void> _released;
};

std::string nameOfThisThread() {
  char name[64] = "";
  ::pthread_getname_np(::pthread_self(), name, sizeof name);
  return name;
}

// A queue whose thread is running.
struct StartedQueue : ZPISerialQueue {
  explicit StartedQueue(const std::string& label) : ZPISerialQueue(label) {
    EXPECT_TRUE(startThread());
  }
};

// Runs `task` on the thread of a queue with this label and returns its result.
template <class Function>
auto onQueueThread(const std::string& label, Function function) {
  StartedQueue queue(label);
  std::promise<decltype(function())> result;
  queue.queue([&] { result.set_value(function()); });
  auto future = result.get_future();
  EXPECT_EQ(future.wait_for(kPatience), std::future_status::ready);
  return future.get();
}

TEST(ZPISerialQueueTest, TasksRunInTheOrderTheyWereQueued) {
  StartedQueue queue("order");
  std::vector<int> order;
  for (int i = 0; i < 1000; ++i) queue.queue([&order, i] { order.push_back(i); });
  queue.runAndWait([] {});
  ASSERT_EQ(order.size(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST(ZPISerialQueueTest, QueueingReturnsWhileAnEarlierTaskRuns) {
  StartedQueue queue("returns");
  Gate gate;
  std::atomic<bool> hasRun{false};
  queue.queue(gate.task());
  ASSERT_TRUE(gate.waitUntilEntered());
  queue.queue([&] { hasRun = true; });
  EXPECT_FALSE(hasRun);
  gate.release();
  queue.runAndWait([] {});
  EXPECT_TRUE(hasRun);
}

TEST(ZPISerialQueueTest, AnAwaitedTaskRunsAfterAllQueuedBefore) {
  StartedQueue queue("awaited");
  Gate gate;
  std::vector<std::string> order;
  queue.queue(gate.task());
  ASSERT_TRUE(gate.waitUntilEntered());
  queue.queue([&] { order.emplace_back("queued"); });
  auto awaited = std::async(std::launch::async, [&] {
    queue.runAndWait([&] { order.emplace_back("awaited"); });
    order.emplace_back("returned");
  });
  gate.release();
  ASSERT_EQ(awaited.wait_for(kPatience), std::future_status::ready);
  EXPECT_THAT(order, ElementsAre("queued", "awaited", "returned"));
}

TEST(ZPISerialQueueTest, ATaskQueuedAfterAWaitingCallerRunsAfterIt) {
  StartedQueue queue("after");
  Gate gate;
  std::vector<std::string> order;
  std::future<void> caller;
  queue.runAndWait([&] {
    caller = std::async(std::launch::async, [&] { queue.runAndWait(gate.task()); });
    queue.queue([&] { order.emplace_back("one"); });
  });
  ASSERT_TRUE(gate.waitUntilEntered());
  queue.queue([&] { order.emplace_back("two"); });
  gate.release();
  caller.wait();
  queue.runAndWait([] {});
  EXPECT_THAT(order, ElementsAre("one", "two"));
}

TEST(ZPISerialQueueTest, AnAwaitedTaskNeedsOnlyTheCallersThread) {
  ZPISerialQueue queue("zq-caller");
  std::thread::id thread;
  queue.runAndWait([&] { thread = std::this_thread::get_id(); });
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(threadsNamed("zq-caller"), 0U);
}

TEST(ZPISerialQueueTest, TasksOfAllKindsAndThreadsNeverOverlap) {
  StartedQueue queue("overlap");
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  int runs = 0;  // not atomic: only the queue keeps the tasks apart
  const auto task = [&] {
    if (inside.fetch_add(1) != 0) overlapped = true;
    ++runs;
    inside.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 200; ++j) {
        if (j % 2 == 0) {
          queue.queue(task);
        } else {
          queue.runAndWait(task);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  queue.runAndWait([] {});
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(runs, 800);
}

TEST(ZPISerialQueueTest, EachThreadsTasksKeepTheirOrder) {
  StartedQueue queue("producers");
  std::vector<std::vector<int>> seen(3);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < 300; ++j) queue.queue([&seen, i, j] { seen[i].push_back(j); });
    });
  }
  for (std::thread& thread : threads) thread.join();
  queue.runAndWait([] {});
  for (const std::vector<int>& numbers : seen) {
    EXPECT_EQ(numbers.size(), 300U);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
  }
}

TEST(ZPISerialQueueTest, ATaskCanQueueAnother) {
  StartedQueue queue("nested");
  std::promise<void> done;
  queue.queue([&] { queue.queue([&] { done.set_value(); }); });
  EXPECT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

// --- The thread.

TEST(ZPISerialQueueTest, TheThreadLivesFromStartToEnd) {
  ZPISerialQueue queue("zq-life");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(threadsNamed("zq-life"), 0U);
    EXPECT_TRUE(queue.startThread());
    EXPECT_TRUE(waitFor([] { return threadsNamed("zq-life") == 1; }));
    std::promise<std::string> name;
    queue.queue([&] { name.set_value(nameOfThisThread()); });
    EXPECT_EQ(name.get_future().get(), "zq-life");
    queue.endThread();
    EXPECT_TRUE(waitFor([] { return threadsNamed("zq-life") == 0; }));
  }
}

TEST(ZPISerialQueueTest, StartingAgainKeepsTheOneThread) {
  StartedQueue queue("again");
  const auto threadOfATask = [&] {
    std::promise<std::thread::id> thread;
    queue.queue([&] { thread.set_value(std::this_thread::get_id()); });
    return thread.get_future().get();
  };
  const std::thread::id first = threadOfATask();
  EXPECT_TRUE(queue.startThread());
  EXPECT_EQ(threadOfATask(), first);
}

TEST(ZPISerialQueueTest, AnEndingThreadStillRunsTheQueuedTasks) {
  StartedQueue queue("zq-ending");
  Gate gate;
  std::promise<std::string> name;
  queue.queue(gate.task());
  queue.queue([&] { name.set_value(nameOfThisThread()); });
  ASSERT_TRUE(gate.waitUntilEntered());
  queue.endThread();
  gate.release();
  EXPECT_EQ(name.get_future().get(), "zq-ending");
  EXPECT_TRUE(waitFor([] { return threadsNamed("zq-ending") == 0; }));
}

TEST(ZPISerialQueueTest, AThreadRestartedBeforeItEndedStays) {
  StartedQueue queue("zq-stays");
  Gate gate;
  queue.queue(gate.task());
  ASSERT_TRUE(gate.waitUntilEntered());
  const RefusedThreads refused;
  queue.endThread();
  EXPECT_TRUE(queue.startThread());
  gate.release();
  std::promise<std::string> name;
  queue.queue([&] { name.set_value(nameOfThisThread()); });
  EXPECT_EQ(name.get_future().get(), "zq-stays");
}

TEST(ZPISerialQueueTest, WithoutAThreadTheCallerRunsTasksAndStartsNone) {
  ZPISerialQueue queue("zq-none");
  const auto threadOfATask = [&] {
    std::thread::id thread;
    queue.queue([&] { thread = std::this_thread::get_id(); });
    return thread;
  };
  EXPECT_EQ(threadOfATask(), std::this_thread::get_id());
  {
    const RefusedThreads refused;
    EXPECT_FALSE(queue.startThread());
  }
  EXPECT_EQ(threadOfATask(), std::this_thread::get_id());
  EXPECT_EQ(threadsNamed("zq-none"), 0U);
  EXPECT_TRUE(queue.startThread());
}

// The thread ends while others queue tasks, and no task is lost.
TEST(ZPISerialQueueTest, TasksRunInOrderWhileTheThreadComesAndGoes) {
  ZPISerialQueue queue("comes and goes");
  std::atomic<bool> isDone{false};
  std::thread changer([&] {
    while (!isDone) {
      queue.startThread();
      queue.endThread();
    }
  });
  std::vector<int> order;
  for (int i = 0; i < 2000; ++i) queue.queue([&order, i] { order.push_back(i); });
  isDone = true;
  changer.join();
  queue.runAndWait([] {});
  ASSERT_EQ(order.size(), 2000U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(ZPISerialQueueTest, TheLabelIsTruncatedToTheSystemsLimit) {
  EXPECT_EQ(onQueueThread("", nameOfThisThread), "");
  EXPECT_EQ(onQueueThread("123456789012345", nameOfThisThread), "123456789012345");
  EXPECT_EQ(onQueueThread("/var/log/station/console.log", nameOfThisThread), "/var/log/statio");
}

TEST(ZPISerialQueueTest, TheLabelIsNotTruncatedWithinACharacter) {
  EXPECT_EQ(onQueueThread("12345678901234\u00e9", nameOfThisThread), "12345678901234");
  EXPECT_EQ(onQueueThread("1234567890123\u00e9-", nameOfThisThread), "1234567890123\u00e9");
}

// A host program's handlers run on its own threads; signals raised by a fault still reach them.
TEST(ZPISerialQueueTest, TheThreadReceivesOnlySignalsOfFaults) {
  const sigset_t mask = onQueueThread("signals", [] {
    sigset_t current;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &current);
    return current;
  });
  for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGXFSZ, SIGPIPE}) {
    EXPECT_EQ(::sigismember(&mask, signal), 1) << signal;
  }
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    EXPECT_EQ(::sigismember(&mask, signal), 0) << signal;
  }
}

TEST(ZPISerialQueueTest, StartingTheThreadLeavesTheCallersSignalsAlone) {
  sigset_t before;
  sigset_t after;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &before);
  onQueueThread("mask", [] { return 0; });
  ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
  for (int signal = 1; signal < NSIG; ++signal) {
    EXPECT_EQ(::sigismember(&before, signal), ::sigismember(&after, signal)) << signal;
  }
}

TEST(ZPISerialQueueTest, ATaskReleasesItsCapturesBeforeTheNextRuns) {
  StartedQueue queue("release");
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> weak = held;
  queue.queue([held = std::move(held)] {});
  queue.runAndWait([&] { EXPECT_TRUE(weak.expired()); });
}

TEST(ZPISerialQueueTest, DestroyingABusyQueueDoesNotWaitAndLosesNothing) {
  auto queue = std::make_unique<StartedQueue>("busy");
  Gate gate;
  std::promise<void> last;
  queue->queue(gate.task());
  queue->queue([&] { last.set_value(); });
  ASSERT_TRUE(gate.waitUntilEntered());
  queue.reset();
  gate.release();
  EXPECT_EQ(last.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(ZPISerialQueueTest, TheThreadOfADestroyedQueueEndsAtOnce) {
  auto queue = std::make_unique<StartedQueue>("zq-gone");
  queue->queue([] {});
  queue.reset();
  EXPECT_TRUE(waitFor([] { return threadsNamed("zq-gone") == 0; }));
}

// Owns a queue as a channel does: a task can hold the last reference to the owner.
struct Owner {
  explicit Owner(std::promise<std::thread::id>* destroyedOn) : destroyed(destroyedOn) {}
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() { destroyed->set_value(std::this_thread::get_id()); }

  std::promise<std::thread::id>* destroyed;
  StartedQueue queue{"owner"};
};

TEST(ZPISerialQueueTest, AQueueCanBeDestroyedByItsOwnTask) {
  std::promise<std::thread::id> destroyed;
  std::promise<std::thread::id> ran;
  std::promise<std::thread::id> later;
  Gate gate;
  auto owner = std::make_shared<Owner>(&destroyed);
  owner->queue.queue([owner, &gate, &ran] {
    ran.set_value(std::this_thread::get_id());
    gate.task()();
  });
  owner->queue.queue([&] { later.set_value(std::this_thread::get_id()); });
  ASSERT_TRUE(gate.waitUntilEntered());
  owner.reset();
  gate.release();
  const std::thread::id thread = ran.get_future().get();
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_EQ(destroyed.get_future().get(), thread);
  EXPECT_EQ(later.get_future().get(), thread);
}

TEST(ZPISerialQueueTest, AnAwaitedTaskCanDestroyItsQueue) {
  std::promise<std::thread::id> destroyed;
  auto owner = std::make_unique<Owner>(&destroyed);
  ZPISerialQueue& queue = owner->queue;
  queue.runAndWait([&] { owner.reset(); });
  EXPECT_EQ(destroyed.get_future().get(), std::this_thread::get_id());
}

// Whichever comes last, the task or the caller, destroys the queue; both orders occur.
TEST(ZPISerialQueueTest, ARaceForTheLastReferenceIsHarmless) {
  for (int i = 0; i < 300; ++i) {
    std::promise<std::thread::id> destroyed;
    auto owner = std::make_shared<Owner>(&destroyed);
    const std::weak_ptr<Owner> weak = owner;
    for (int j = 0; j < 3; ++j) {
      owner->queue.queue([weak] { const std::shared_ptr<Owner> strong = weak.lock(); });
    }
    owner.reset();
    ASSERT_EQ(destroyed.get_future().wait_for(kPatience), std::future_status::ready);
  }
}

}  // namespace
