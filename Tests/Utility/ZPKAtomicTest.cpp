#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Utility/ZPKAtomic.h"

namespace {

constexpr int kThreads = 4;

void onThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < count; ++thread) threads.emplace_back(body, thread);
  for (std::thread& thread : threads) thread.join();
}

// Counts how often it is copied.
struct Counting {
  Counting() = default;
  Counting(int number, int* counter) : value(number), copies(counter) {}
  Counting(const Counting& other) : value(other.value), copies(other.copies) {
    if (copies != nullptr) ++*copies;
  }
  Counting(Counting&&) = default;
  Counting& operator=(const Counting&) = default;
  Counting& operator=(Counting&&) = default;
  ~Counting() = default;

  int value = 0;
  int* copies = nullptr;
};

TEST(ZPKSmallMutexTest, ItOccupiesFourBytes) { EXPECT_EQ(sizeof(ZPKSmallMutex), 4U); }

TEST(ZPKSmallMutexTest, ItCanBeLockedAgainAfterAnUnlock) {
  ZPKSmallMutex mutex;
  for (int i = 0; i < 3; ++i) {
    mutex.lock();
    mutex.unlock();
  }
}

TEST(ZPKSmallMutexTest, OneThreadAtATimeHoldsIt) {
  constexpr int kRounds = 5000;
  ZPKSmallMutex mutex;
  int64_t count = 0;  // plain, so that a sanitizer sees any overlap as well
  bool isHeld = false;
  int overlaps = 0;
  onThreads(kThreads, [&](int) {
    for (int i = 0; i < kRounds; ++i) {
      const std::lock_guard guard(mutex);
      if (isHeld) ++overlaps;
      isHeld = true;
      ++count;
      isHeld = false;
    }
  });
  EXPECT_EQ(count, int64_t{kThreads} * kRounds);
  EXPECT_EQ(overlaps, 0);
}

TEST(ZPKSmallMutexTest, EveryWaiterGetsIt) {
  for (int round = 0; round < 50; ++round) {
    ZPKSmallMutex mutex;
    std::atomic<int> arriving{0};
    int served = 0;
    mutex.lock();
    std::thread holder([&] {
      onThreads(kThreads, [&](int) {
        arriving.fetch_add(1, std::memory_order_relaxed);
        const std::lock_guard guard(mutex);
        ++served;
      });
    });
    while (arriving.load(std::memory_order_relaxed) < kThreads) std::this_thread::yield();
    mutex.unlock();
    holder.join();
    ASSERT_EQ(served, kThreads);
  }
}

TEST(ZPKSmallMutexTest, OnlyAFreeMutexCanBeLockedByTrying) {
  ZPKSmallMutex mutex;
  EXPECT_TRUE(mutex.try_lock());
  EXPECT_FALSE(mutex.try_lock());
  std::thread([&] { EXPECT_FALSE(mutex.try_lock()); }).join();
  mutex.unlock();
  std::thread([&] {
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
  }).join();
  mutex.lock();
  mutex.unlock();
}

TEST(ZPKAtomicTest, AnExchangeReturnsWhatWasReplaced) {
  ZPKAtomic<std::string> property("first");
  EXPECT_EQ(property.exchange("second"), "first");
  EXPECT_EQ(property.load(), "second");
}

TEST(ZPKAtomicTest, EveryChangeGivesAnotherVersion) {
  ZPKAtomic<int> property(1);
  const uint32_t first = property.version();
  EXPECT_EQ(property.load(), 1);
  EXPECT_EQ(property.version(), first);
  property.store(1);
  const uint32_t second = property.version();
  EXPECT_NE(second, first);
  property.exchange(1);
  EXPECT_NE(property.version(), second);
  EXPECT_NE(property.version(), first);
}

// Each thread announces itself and then looks for the other: they cannot miss each other both.
TEST(ZPKSmallMutexTest, AnUnlockAndAStoreNeverBothGoUnnoticed) {
  for (int round = 0; round < 2000; ++round) {
    ZPKSmallMutex mutex;
    ZPKAtomic<int> property(0);
    const uint32_t before = property.version();
    std::atomic<int> ready{0};
    bool holderNoticed = false;
    bool setterNoticed = false;
    mutex.lock();
    onThreads(2, [&](int thread) {
      ready.fetch_add(1);
      while (ready.load() < 2) std::this_thread::yield();
      if (thread == 0) {
        mutex.unlock();
        holderNoticed = property.version() != before;
      } else {
        property.store(1);
        setterNoticed = mutex.try_lock();
      }
    });
    ASSERT_TRUE(holderNoticed || setterNoticed);
  }
}

TEST(ZPKAtomicTest, ItHoldsWhatWasStoredLast) {
  ZPKAtomic<std::string> property("first");
  EXPECT_EQ(property.load(), "first");
  property.store("second");
  EXPECT_EQ(property.load(), "second");
  EXPECT_EQ(ZPKAtomic<int>().load(), 0);
  EXPECT_EQ(ZPKAtomic<std::shared_ptr<int>>().load(), nullptr);
}

TEST(ZPKAtomicTest, AReaderNeverSeesHalfAValue) {
  constexpr int kRounds = 2000;
  ZPKAtomic<std::string> property(std::string(100, 'a'));
  std::atomic<int> torn{0};
  onThreads(kThreads, [&](int thread) {
    for (int i = 0; i < kRounds; ++i) {
      if (thread % 2 == 0) {
        property.store(std::string(100, static_cast<char>('a' + i % 26)));
      } else {
        const std::string value = property.load();
        if (value != std::string(100, value.front())) torn.fetch_add(1, std::memory_order_relaxed);
      }
    }
  });
  EXPECT_EQ(torn, 0);
}

TEST(ZPKAtomicTest, ALoadSeesWritesMadeBeforeTheStore) {
  struct Box {
    int content = 0;  // plain: published only by the store
  };
  ZPKAtomic<std::shared_ptr<Box>> property;
  std::thread writer([&] {
    auto box = std::make_shared<Box>();
    box->content = 42;
    property.store(std::move(box));
  });
  std::shared_ptr<Box> seen;
  while ((seen = property.load()) == nullptr) std::this_thread::yield();
  EXPECT_EQ(seen->content, 42);
  writer.join();
}

TEST(ZPKAtomicTest, AReplacedValueIsDestroyedOutsideTheLock) {
  struct Probe {
    explicit Probe(std::function<void()> atEnd) : _atEnd(std::move(atEnd)) {}
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;
    ~Probe() { _atEnd(); }
    const std::function<void()> _atEnd;
  };
  ZPKAtomic<std::shared_ptr<Probe>> property;
  bool sawNull = false;
  property.store(std::make_shared<Probe>([&] { sawNull = property.load() == nullptr; }));
  property.store(nullptr);
  EXPECT_TRUE(sawNull);
}

TEST(ZPKAtomicSnapshotTest, ItReturnsTheCurrentValue) {
  ZPKAtomic<std::string> property("first");
  ZPKAtomic<std::string>::Snapshot snapshot(property);
  EXPECT_EQ(snapshot.current(), "first");
  property.store("second");
  EXPECT_EQ(snapshot.current(), "second");
  property.store("third");
  property.store("fourth");
  EXPECT_EQ(snapshot.current(), "fourth");
}

TEST(ZPKAtomicSnapshotTest, AnUnchangedPropertyIsNotCopiedAgain) {
  int copies = 0;
  ZPKAtomic<Counting> property(Counting(1, &copies));
  ZPKAtomic<Counting>::Snapshot snapshot(property);
  const int copiesAtFirst = copies;
  for (int i = 0; i < 10; ++i) EXPECT_EQ(snapshot.current().value, 1);
  EXPECT_EQ(copies, copiesAtFirst);
  property.store(Counting(2, &copies));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(snapshot.current().value, 2);
  EXPECT_EQ(copies, copiesAtFirst + 1);
}

TEST(ZPKAtomicSnapshotTest, SeveralSnapshotsFollowOneProperty) {
  ZPKAtomic<int> property(1);
  ZPKAtomic<int>::Snapshot one(property);
  ZPKAtomic<int>::Snapshot two(property);
  property.store(2);
  EXPECT_EQ(one.current(), 2);
  property.store(3);
  EXPECT_EQ(two.current(), 3);
  EXPECT_EQ(one.current(), 3);
}

TEST(ZPKAtomicSnapshotTest, TheNextReadReleasesAReplacedValue) {
  auto first = std::make_shared<int>(1);
  const std::weak_ptr<int> watch = first;
  ZPKAtomic<std::shared_ptr<int>> property(std::move(first));
  ZPKAtomic<std::shared_ptr<int>>::Snapshot snapshot(property);
  property.store(nullptr);
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(snapshot.current(), nullptr);
  EXPECT_TRUE(watch.expired());
}

// Each reader has a snapshot of its own, created while the writer runs.
TEST(ZPKAtomicSnapshotTest, ReadersSeeStoresInOrderAndFinallyTheLast) {
  constexpr int kStores = 3000;
  struct Box {
    explicit Box(int number) : content(number) {}
    const int content;
  };
  ZPKAtomic<std::shared_ptr<Box>> property(std::make_shared<Box>(0));
  std::atomic<int> backwards{0};
  onThreads(kThreads, [&](int thread) {
    if (thread == 0) {
      for (int i = 1; i <= kStores; ++i) property.store(std::make_shared<Box>(i));
      return;
    }
    ZPKAtomic<std::shared_ptr<Box>>::Snapshot snapshot(property);
    for (int last = 0; last < kStores;) {
      const int seen = snapshot.current()->content;
      if (seen < last) backwards.fetch_add(1, std::memory_order_relaxed);
      if (seen == last) std::this_thread::yield();
      last = seen;
    }
  });
  EXPECT_EQ(backwards, 0);
}

}  // namespace
