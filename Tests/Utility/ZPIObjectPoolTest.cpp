#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/ProcessStatus.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPIObjectPool.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKString.h"

using namespace support;

namespace {

using NumberPtr = std::shared_ptr<const ZPKNumber>;

std::vector<NumberPtr> makeNumbers(ZPIObjectPool* pool, int count) {
  std::vector<NumberPtr> numbers;
  for (int i = 0; i < count; ++i) numbers.push_back(pool->make<ZPKNumber>(i));
  return numbers;
}

TEST(ZPIObjectPoolTest, CreatesObjectsOfItsArguments) {
  ZPIObjectPool pool;
  const auto numbers = makeNumbers(&pool, 100);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(numbers[static_cast<size_t>(i)]->integerValue(), i);
  EXPECT_EQ(pool.makeWithKey<ZPKString>(std::string(100, 'x'))->value(), std::string(100, 'x'));
  ZPKDictionary::Entries entries;
  entries.emplace_back("one", 1);
  EXPECT_EQ(pool.makeWithKey<ZPKDictionary>(std::move(entries))->integer("one"), 1);
}

TEST(ZPIObjectPoolTest, AnUnusedPoolAllocatesNothing) {
  const SystemCalls calls;
  const ZPIObjectPool pool;
  EXPECT_EQ(calls.allocations(), 0U);
}

TEST(ZPIObjectPoolTest, SeveralObjectsShareAnAllocation) {
  constexpr int kCount = 80;
  std::vector<NumberPtr> numbers(kCount);
  ZPIObjectPool pool;
  const SystemCalls calls;
  for (NumberPtr& number : numbers) number = pool.make<ZPKNumber>(1);
  EXPECT_LE(calls.allocations(), kCount / 5U);
}

TEST(ZPIObjectPoolTest, EachObjectHasItsOwnReferences) {
  ZPIObjectPool pool;
  auto numbers = makeNumbers(&pool, 2);
  EXPECT_EQ(numbers[0].use_count(), 1);
  const std::weak_ptr<const ZPKNumber> first = numbers[0];
  numbers[0].reset();
  EXPECT_TRUE(first.expired());
  EXPECT_EQ(numbers[1]->integerValue(), 1);
}

TEST(ZPIObjectPoolTest, ObjectsOutliveThePool) {
  std::optional<ZPIObjectPool> pool(std::in_place);
  auto numbers = makeNumbers(&*pool, 20);
  pool.reset();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(numbers[static_cast<size_t>(i)]->integerValue(), i);
}

TEST(ZPIObjectPoolTest, ABlockIsFreedWithTheLastOfItsObjects) {
  if (!isMemoryComparable()) return;
  constexpr int kCount = 100000;
  // glibc keeps a few freed blocks for each thread, and counts them as used; and what threads of
  // other tests free late is counted too. The blocks of all objects would be some megabytes.
  constexpr size_t kCountedBesides = 16 * ZPIObjectPool::kBlockSize;
  const size_t most = ::mallinfo2().uordblks + kCountedBesides;
  {
    ZPIObjectPool pool;
    for (int i = 0; i < kCount; ++i) pool.make<ZPKNumber>(i);
    EXPECT_LE(::mallinfo2().uordblks, most);
    const NumberPtr kept = pool.make<ZPKNumber>(1);
    for (int i = 0; i < kCount; ++i) pool.make<ZPKNumber>(i);
    EXPECT_LE(::mallinfo2().uordblks, most);
  }
  EXPECT_LE(::mallinfo2().uordblks, most);
}

// While this thread creates objects in the block whose first ones the others release.
TEST(ZPIObjectPoolTest, OtherThreadsMayReleaseTheObjects) {
  constexpr int kRounds = 200;
  ZPIObjectPool pool;
  for (int round = 0; round < kRounds; ++round) {
    auto first = makeNumbers(&pool, 5);
    auto second = makeNumbers(&pool, 5);
    std::thread one([numbers = std::move(first)]() mutable { numbers.clear(); });
    std::thread other([numbers = std::move(second)]() mutable { numbers.clear(); });
    const auto third = makeNumbers(&pool, 5);
    one.join();
    other.join();
    for (int i = 0; i < 5; ++i) ASSERT_EQ(third[static_cast<size_t>(i)]->integerValue(), i);
  }
}

TEST(ZPIObjectPoolTest, AnObjectLargerThanABlockHasItsOwn) {
  using Large = std::array<uint64_t, 1000>;
  ZPIObjectPool pool;
  const NumberPtr before = pool.make<ZPKNumber>(1);
  Large values{};
  values.fill(7);
  const auto large = pool.make<Large>(values);
  const NumberPtr after = pool.make<ZPKNumber>(2);
  EXPECT_EQ(*large, values);
  EXPECT_EQ(before->integerValue(), 1);
  EXPECT_EQ(after->integerValue(), 2);
}

TEST(ZPIObjectPoolTest, WithoutMemoryItThrowsAndStaysUsable) {
  ZPIObjectPool pool;
  std::vector<NumberPtr> numbers(100);
  for (int i = 0; i < 100; ++i) {
    NumberPtr& number = numbers[static_cast<size_t>(i)];
    SystemCalls calls;
    calls.failAllocation();
    try {
      number = pool.make<ZPKNumber>(i);
    } catch (const std::bad_alloc&) {
      number = pool.make<ZPKNumber>(i);
    }
  }
  for (int i = 0; i < 100; ++i) EXPECT_EQ(numbers[static_cast<size_t>(i)]->integerValue(), i);
}

TEST(ZPIObjectPoolTest, AConstructorThatThrowsLeavesThePoolUsable) {
  struct Thrower {
    Thrower() { throw std::runtime_error("constructor"); }
  };
  ZPIObjectPool pool;
  for (int i = 0; i < 20; ++i) EXPECT_THROW(pool.make<Thrower>(), std::runtime_error);
  EXPECT_EQ(pool.make<ZPKNumber>(3)->integerValue(), 3);
}

}  // namespace
