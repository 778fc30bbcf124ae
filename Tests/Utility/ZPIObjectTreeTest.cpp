#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/SystemCalls.h"
#include "Utility/ZPIObjectTree.h"

namespace {

// Deep enough for recursion to overflow a thread's usual stack of 8 MiB.
constexpr int kDeep = 100'000;

// Reports its destruction.
class Reporting final : public ZPKObject {
 public:
  explicit Reporting(std::function<void()> onDestruction)
      : _onDestruction(std::move(onDestruction)) {}
  ~Reporting() override { _onDestruction(); }

 private:
  const std::function<void()> _onDestruction;
};

ZPKObjectPtr nestedDictionaries(int depth, ZPKObjectPtr innermost) {
  for (int i = 0; i < depth; ++i) innermost = ZPKDictionary::init({{"in", std::move(innermost)}});
  return innermost;
}

ZPKObjectPtr nestedArrays(int depth, ZPKObjectPtr innermost) {
  for (int i = 0; i < depth; ++i) innermost = ZPKArray::init({std::move(innermost), 1});
  return innermost;
}

// Records the events it receives; stops before event number `limit`.
class Recorder final : public ZPIObjectVisitor {
 public:
  explicit Recorder(size_t limit = 1000) : _limit(limit) {}
  bool beginDictionary(const ZPKDictionary&) override { return record("{"); }
  bool key(const std::string& key) override { return record(key); }
  void endDictionary() override { record("}"); }
  bool beginArray(const ZPKArray&) override { return record("["); }
  void endArray() override { record("]"); }
  bool leaf(ZPIObjectKind /*kind*/, const ZPKObject* object) override {
    return record(object == nullptr ? "null" : object->debugDescription());
  }

  std::vector<std::string> events;

 private:
  bool record(const std::string& event) {
    if (events.size() == _limit) return false;
    events.push_back(event);
    return true;
  }

  const size_t _limit;
};

TEST(ZPIObjectTreeTest, AWalkVisitsEverythingInOrder) {
  const auto tree = ZPKDictionary::init(
      {{"a", ZPKArray::init({1, nullptr, ZPKArray::init()})}, {"b", {{"c", "d"}}}});
  Recorder recorder;
  EXPECT_TRUE(ZPIWalkObjectTree(tree.get(), &recorder));
  EXPECT_THAT(recorder.events, testing::ElementsAre("{", "a", "[", "1", "null", "[", "]", "]", "b",
                                                    "{", "c", "d", "}", "}"));
}

TEST(ZPIObjectTreeTest, AWalkEndsWhereTheVisitorEndsIt) {
  const auto tree = ZPKDictionary::init({{"a", ZPKArray::init({1, 2})}});
  for (size_t limit = 0; limit < 5; ++limit) {
    Recorder recorder(limit);
    EXPECT_FALSE(ZPIWalkObjectTree(tree.get(), &recorder)) << limit;
    EXPECT_EQ(recorder.events.size(), limit);
  }
}

TEST(ZPIObjectTreeTest, NullIsALeaf) {
  Recorder recorder;
  EXPECT_TRUE(ZPIWalkObjectTree(nullptr, &recorder));
  EXPECT_THAT(recorder.events, testing::ElementsAre("null"));
}

TEST(ZPIObjectTreeTest, DeeplyNestedDictionariesAreComparedAndDestroyed) {
  ZPKObjectPtr one = nestedDictionaries(kDeep, ZPKValue(1));
  ZPKObjectPtr same = nestedDictionaries(kDeep, ZPKValue(1));
  ZPKObjectPtr other = nestedDictionaries(kDeep, ZPKValue(2));
  EXPECT_TRUE(ZPKObjectsAreEqual(one, same));
  EXPECT_FALSE(ZPKObjectsAreEqual(one, other));
}

TEST(ZPIObjectTreeTest, DeeplyNestedArraysAreComparedAndDestroyed) {
  ZPKObjectPtr one = nestedArrays(kDeep, ZPKValue(1));
  ZPKObjectPtr same = nestedArrays(kDeep, ZPKValue(1));
  EXPECT_TRUE(ZPKObjectsAreEqual(one, same));
}

TEST(ZPIObjectTreeTest, DeeplyNestedDictionariesAreDescribed) {
  const ZPKObjectPtr tree = nestedDictionaries(kDeep, ZPKValue(1));
  const std::string description = tree->debugDescription();
  EXPECT_TRUE(description.starts_with(R"({"in": {"in": )"));
  EXPECT_EQ(description.size(), size_t{kDeep} * 8 + 1);
}

TEST(ZPIObjectTreeTest, OnlyNullEqualsNull) {
  const auto null = ZPKArray::init({nullptr});
  for (const ZPKValue& value : {ZPKValue(0), ZPKValue(""), ZPKValue(ZPKArray::init())}) {
    const auto other = ZPKArray::init({value});
    EXPECT_FALSE(other->isEqual(*null)) << other->debugDescription();
    EXPECT_FALSE(null->isEqual(*other)) << other->debugDescription();
  }
  EXPECT_TRUE(null->isEqual(*ZPKArray::init({nullptr})));
}

TEST(ZPIObjectTreeTest, PartsThatAreTheSameObjectAreNotCompared) {
  // Each level holds the one below twice, so comparing all of it would take 2^200 steps.
  ZPKObjectPtr shared = ZPKValue(1);
  for (int i = 0; i < 200; ++i) shared = ZPKDictionary::init({{"a", shared}, {"b", shared}});
  const auto one = ZPKArray::init({shared});
  const auto other = ZPKArray::init({shared});
  EXPECT_TRUE(one->isEqual(*other));
}

TEST(ZPIObjectTreeTest, AllPartsAreDestroyedBeforeTheReleaseReturns) {
  int destroyed = 0;
  const auto count = [&destroyed] { ++destroyed; };
  const auto counted = [&count] { return std::make_shared<const Reporting>(count); };
  ZPKObjectPtr tree = nestedDictionaries(
      10, ZPKArray::init({counted(), ZPKDictionary::init({{"a", counted()}, {"b", counted()}})}));
  tree.reset();
  EXPECT_EQ(destroyed, 3);
}

TEST(ZPIObjectTreeTest, AReleaseWithoutMemoryDestroysAllParts) {
  constexpr size_t kAllocations = 6;  // of a release of 30 levels, each with two elements
  for (size_t failing = 0; failing < kAllocations; ++failing) {
    int destroyed = 0;
    ZPKObjectPtr tree = std::make_shared<const Reporting>([&destroyed] { ++destroyed; });
    for (int i = 0; i < 30; ++i) tree = ZPKArray::init({ZPKValue(i), tree});
    support::SystemCalls calls;
    calls.failAllocation(failing);
    tree.reset();
    EXPECT_GT(calls.allocations(), failing);
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(ZPIObjectTreeTest, PartsThatAreHeldElsewhereLiveOn) {
  ZPKObjectPtr inner = nestedDictionaries(10, ZPKValue("kept"));
  ZPKObjectPtr outer = nestedDictionaries(10, inner);
  outer.reset();
  EXPECT_TRUE(ZPKObjectsAreEqual(inner, nestedDictionaries(10, ZPKValue("kept"))));
}

TEST(ZPIObjectTreeTest, ADestructorMayReleaseOtherTrees) {
  int destroyed = 0;
  const auto releaseAnother = [&destroyed] {
    ZPKObjectPtr another =
        nestedDictionaries(100, std::make_shared<const Reporting>([&destroyed] { ++destroyed; }));
  };
  ZPKObjectPtr tree = nestedArrays(100, std::make_shared<const Reporting>(releaseAnother));
  tree.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(ZPIObjectTreeTest, ThreadsShareAndReleaseTheSameParts) {
  std::atomic<int> destroyed = 0;
  const auto count = [&destroyed] { destroyed.fetch_add(1, std::memory_order_relaxed); };
  for (int round = 0; round < 50; ++round) {
    const ZPKObjectPtr shared = nestedDictionaries(100, std::make_shared<const Reporting>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([mine = nestedArrays(10, shared)]() mutable { mine.reset(); });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(destroyed.load(), 50);
}

}  // namespace
