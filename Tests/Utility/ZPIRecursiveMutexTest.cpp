#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "Utility/ZPIRecursiveMutex.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 5000;

bool anotherThreadCanLock(ZPIRecursiveMutex& mutex) {
  bool isLocked = false;
  std::thread([&] {
    isLocked = mutex.try_lock();
    if (isLocked) mutex.unlock();
  }).join();
  return isLocked;
}

TEST(ZPIRecursiveMutexTest, ItIsSmall) { EXPECT_LE(sizeof(ZPIRecursiveMutex), 16U); }

TEST(ZPIRecursiveMutexTest, ItsHolderMayLockItAgain) {
  ZPIRecursiveMutex mutex;
  mutex.lock();
  EXPECT_FALSE(mutex.isNested());
  mutex.lock();
  EXPECT_TRUE(mutex.try_lock());
  EXPECT_TRUE(mutex.isNested());
  mutex.unlock();
  mutex.unlock();
  EXPECT_FALSE(mutex.isNested());
  mutex.unlock();
}

TEST(ZPIRecursiveMutexTest, OthersGetItAfterTheLastUnlock) {
  ZPIRecursiveMutex mutex;
  EXPECT_TRUE(anotherThreadCanLock(mutex));
  mutex.lock();
  mutex.lock();
  EXPECT_FALSE(anotherThreadCanLock(mutex));
  mutex.unlock();
  EXPECT_FALSE(anotherThreadCanLock(mutex));
  mutex.unlock();
  EXPECT_TRUE(anotherThreadCanLock(mutex));
}

TEST(ZPIRecursiveMutexTest, TryingTakesAFreeMutexForItsThread) {
  ZPIRecursiveMutex mutex;
  EXPECT_TRUE(mutex.try_lock());
  EXPECT_FALSE(mutex.isNested());
  mutex.lock();
  EXPECT_TRUE(mutex.isNested());
  mutex.unlock();
  mutex.unlock();
  EXPECT_TRUE(anotherThreadCanLock(mutex));
}

TEST(ZPIRecursiveMutexTest, OneThreadAtATimeHoldsIt) {
  ZPIRecursiveMutex mutex;
  int64_t count = 0;  // plain, so that a sanitizer sees any overlap as well
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        const std::lock_guard outer(mutex);
        const int64_t before = count;
        const std::lock_guard inner(mutex);
        count = before + 1;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, int64_t{kThreads} * kRounds);
}

TEST(ZPIRecursiveMutexTest, AWaiterGetsItAfterTheLastUnlock) {
  ZPIRecursiveMutex mutex;
  std::atomic<bool> isArriving{false};
  bool isReleased = false;  // guarded by the mutex
  mutex.lock();
  mutex.lock();
  std::thread waiter([&] {
    isArriving = true;
    const std::lock_guard guard(mutex);
    EXPECT_TRUE(isReleased);
  });
  while (!isArriving) std::this_thread::yield();
  mutex.unlock();
  isReleased = true;
  mutex.unlock();
  waiter.join();
}

TEST(ZPIRecursiveMutexTest, AForkedChildOfItsHolderHoldsItToo) {
  ZPIRecursiveMutex mutex;
  mutex.lock();
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool isHeld = mutex.try_lock() && mutex.isNested();
    mutex.unlock();
    mutex.unlock();
    ::_exit(isHeld && mutex.try_lock() && !mutex.isNested() ? 0 : 1);
  }
  mutex.unlock();
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
