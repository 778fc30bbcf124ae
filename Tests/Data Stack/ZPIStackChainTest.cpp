#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <optional>
#include <thread>

#include "Data Stack/ZPIStackChain.h"
#include "Support/HookedChannel.h"

using namespace support;

namespace {

using Operation = ZPIStackChain::Operation;
using WeakChannel = std::weak_ptr<HookedChannel>;

// Stores a new chain that nobody else holds.
WeakChannel storeNewIn(ZPIStackChain& stack, std::function<void()> onDestroy = nullptr) {
  auto channel = std::make_shared<HookedChannel>();
  channel->onDestroy = std::move(onDestroy);
  WeakChannel weak = channel;
  stack.store(std::move(channel));
  return weak;
}

void inAnotherThread(const std::function<void()>& body) { std::thread(body).join(); }

TEST(ZPIStackChainTest, AtFirstThereIsNone) {
  ZPIStackChain stack;
  EXPECT_EQ(stack.load(), nullptr);
  EXPECT_EQ(Operation(stack).chain(), nullptr);
}

TEST(ZPIStackChainTest, AnOperationUsesTheChainThatWasStoredLast) {
  ZPIStackChain stack;
  for (int i = 0; i < 3; ++i) {
    const WeakChannel stored = storeNewIn(stack);
    EXPECT_EQ(stack.load(), stored.lock());
    EXPECT_EQ(Operation(stack).chain(), stored.lock().get());
    EXPECT_EQ(Operation(stack).chain(), stored.lock().get());
  }
  stack.store(nullptr);
  EXPECT_EQ(Operation(stack).chain(), nullptr);
}

TEST(ZPIStackChainTest, AStoreReleasesAChainThatNobodyUses) {
  ZPIStackChain stack;
  const WeakChannel first = storeNewIn(stack);
  const WeakChannel second = storeNewIn(stack);
  EXPECT_TRUE(first.expired());
  { const Operation operation(stack); }
  EXPECT_FALSE(second.expired());
  stack.store(nullptr);
  EXPECT_TRUE(second.expired());
}

TEST(ZPIStackChainTest, AnOperationKeepsItsChainUntilItEnds) {
  ZPIStackChain stack;
  const WeakChannel used = storeNewIn(stack);
  {
    const Operation operation(stack);
    inAnotherThread([&] { stack.store(nullptr); });
    EXPECT_EQ(stack.load(), nullptr);
    EXPECT_EQ(operation.chain(), used.lock().get());
    EXPECT_FALSE(used.expired());
  }
  EXPECT_TRUE(used.expired());
}

TEST(ZPIStackChainTest, AnOperationMayReplaceItsOwnChain) {
  ZPIStackChain stack;
  const WeakChannel used = storeNewIn(stack);
  WeakChannel next;
  {
    const Operation operation(stack);
    next = storeNewIn(stack);
    EXPECT_EQ(operation.chain(), used.lock().get());
  }
  EXPECT_TRUE(used.expired());
  EXPECT_EQ(Operation(stack).chain(), next.lock().get());
}

TEST(ZPIStackChainTest, AnUnusedChainIsReleasedEvenDuringAnOperation) {
  ZPIStackChain stack;
  const WeakChannel used = storeNewIn(stack);
  const Operation operation(stack);
  WeakChannel unused;
  inAnotherThread([&] {
    unused = storeNewIn(stack);
    stack.store(nullptr);
  });
  EXPECT_TRUE(unused.expired());
  EXPECT_FALSE(used.expired());
}

TEST(ZPIStackChainTest, AnInnerOperationUsesTheNewChain) {
  ZPIStackChain stack;
  const WeakChannel outerChain = storeNewIn(stack);
  std::optional<Operation> outer(std::in_place, stack);
  EXPECT_EQ(Operation(stack).chain(), outerChain.lock().get());
  const WeakChannel innerChain = storeNewIn(stack);
  {
    const Operation inner(stack);
    EXPECT_EQ(inner.chain(), innerChain.lock().get());
    stack.store(nullptr);
    EXPECT_FALSE(innerChain.expired());
  }
  EXPECT_TRUE(innerChain.expired());
  EXPECT_EQ(Operation(stack).chain(), nullptr);
  EXPECT_FALSE(outerChain.expired());
  outer.reset();
  EXPECT_TRUE(outerChain.expired());
}

TEST(ZPIStackChainTest, OneOperationRunsAtATime) {
  ZPIStackChain stack;
  int count = 0;  // plain, so that a sanitizer sees any overlap as well
  const auto count5000 = [&] {
    for (int i = 0; i < 5000; ++i) {
      const Operation operation(stack);
      ++count;
    }
  };
  std::thread other(count5000);
  count5000();
  other.join();
  EXPECT_EQ(count, 10'000);
}

TEST(ZPIStackChainTest, AChainMayUseTheStackWhileItIsDestroyed) {
  ZPIStackChain stack;
  bool sawNone = false;
  storeNewIn(stack, [&] { sawNone = Operation(stack).chain() == nullptr; });
  stack.store(nullptr);
  EXPECT_TRUE(sawNone);
}

TEST(ZPIStackChainTest, AChainThatIsDestroyedMayStoreAnother) {
  ZPIStackChain stack;
  WeakChannel last;
  const WeakChannel first = storeNewIn(stack, [&] { last = storeNewIn(stack); });
  {
    const Operation operation(stack);
    stack.store(nullptr);
  }
  EXPECT_TRUE(first.expired());
  EXPECT_NE(last.lock(), nullptr);
  EXPECT_EQ(Operation(stack).chain(), last.lock().get());
  stack.store(nullptr);
  EXPECT_TRUE(last.expired());
}

TEST(ZPIStackChainTest, AChainMayHoldTheLastReferenceToTheStack) {
  auto stack = std::make_shared<ZPIStackChain>();
  bool isDestroyed = false;
  ZPIStackChain& weak = *stack;
  auto channel = std::make_shared<HookedChannel>();
  channel->onDestroy = [kept = std::move(stack), &isDestroyed]() mutable {
    kept = nullptr;
    isDestroyed = true;
  };
  weak.store(std::move(channel));
  { const Operation operation(weak); }
  weak.store(nullptr);
  EXPECT_TRUE(isDestroyed);
}

// The operation releases its chain with the lock held, so the store in the chain's destructor
// cannot renew the copy.
TEST(ZPIStackChainTest, AStoreDuringTheEndOfAnOperationIsNoticed) {
  ZPIStackChain stack;
  WeakChannel last;
  storeNewIn(stack, [&] { inAnotherThread([&] { last = storeNewIn(stack); }); });
  std::optional<Operation> operation(std::in_place, stack);
  const WeakChannel replaced = storeNewIn(stack);
  operation.reset();
  EXPECT_TRUE(replaced.expired());
  EXPECT_EQ(stack.load(), last.lock());
  EXPECT_NE(last.lock(), nullptr);
}

// An operation that ends and a store, at the same moment: the chain is released by one of them.
TEST(ZPIStackChainTest, AStoreAtTheEndOfAnOperationReleasesTheChain) {
  for (int round = 0; round < 2000; ++round) {
    ZPIStackChain stack;
    const WeakChannel chain = storeNewIn(stack);
    std::latch ready(2);
    std::optional<Operation> operation;
    std::thread user([&] {
      operation.emplace(stack);
      ready.arrive_and_wait();
      operation.reset();
    });
    ready.arrive_and_wait();
    stack.store(nullptr);
    user.join();
    ASSERT_TRUE(chain.expired()) << "round " << round;
  }
}

TEST(ZPIStackChainTest, ChainsMayBeReplacedWhileSeveralThreadsUseThem) {
  ZPIStackChain stack;
  std::atomic<int> alive{0};
  const auto storeCounted = [&] {
    ++alive;
    storeNewIn(stack, [&] { --alive; });
  };
  std::atomic<bool> isOver{false};
  const auto use = [&] {
    for (int i = 0; i < 5000; ++i) {
      const Operation operation(stack);
      ASSERT_TRUE(operation.chain() == nullptr || operation.chain()->isOpened());
    }
  };
  std::thread replacer([&] {
    while (!isOver) storeCounted();
  });
  std::thread other(use);
  use();
  other.join();
  isOver = true;
  replacer.join();
  EXPECT_LE(alive, 1);
  stack.store(nullptr);
  EXPECT_EQ(alive, 0);
}

}  // namespace
