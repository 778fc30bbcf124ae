#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "Support/SystemCalls.h"
#include "Utility/ZPIHeapVector.h"

using namespace support;

namespace {

using Bytes = ZPIHeapVector<uint8_t>;

void append(Bytes* vector, std::string_view text) {
  vector->append(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

std::string textOf(const Bytes& vector) {
  return {reinterpret_cast<const char*>(vector.data()), vector.size()};
}

TEST(ZPIHeapVectorTest, IsEmptyAndWithoutStorageAtFirst) {
  const SystemCalls calls;
  const Bytes vector;
  EXPECT_TRUE(vector.empty());
  EXPECT_EQ(vector.size(), 0U);
  EXPECT_EQ(vector.capacity(), 0U);
  EXPECT_EQ(vector.data(), nullptr);
  EXPECT_EQ(calls.allocations(), 0U);
}

TEST(ZPIHeapVectorTest, AppendsAtTheEnd) {
  Bytes vector;
  append(&vector, "one ");
  append(&vector, "two ");
  append(&vector, std::string(100, 'x'));
  EXPECT_EQ(textOf(vector), "one two " + std::string(100, 'x'));
  EXPECT_FALSE(vector.empty());
  EXPECT_GE(vector.capacity(), vector.size());
}

TEST(ZPIHeapVectorTest, AppendingNothingNeedsNoStorage) {
  Bytes vector;
  vector.append(nullptr, 0);
  EXPECT_EQ(vector.capacity(), 0U);
}

TEST(ZPIHeapVectorTest, GrowsInFewSteps) {
  Bytes vector;
  const SystemCalls calls;
  for (int count = 0; count < 100000; ++count) append(&vector, "y");
  EXPECT_EQ(vector.size(), 100000U);
  EXPECT_LE(calls.allocations(), 20U);
}

TEST(ZPIHeapVectorTest, ReservedRoomNeedsNoFurtherAllocation) {
  Bytes vector;
  append(&vector, "one ");
  vector.reserve(1000);
  EXPECT_EQ(textOf(vector), "one ");
  const SystemCalls calls;
  vector.extend(1000);
  EXPECT_EQ(calls.allocations(), 0U);
}

TEST(ZPIHeapVectorTest, TruncationDropsTheEndAndKeepsTheStorage) {
  Bytes vector;
  append(&vector, "one two");
  const size_t capacity = vector.capacity();
  vector.truncate(8);
  EXPECT_EQ(textOf(vector), "one two");
  vector.truncate(3);
  EXPECT_EQ(textOf(vector), "one");
  vector.truncate(0);
  EXPECT_TRUE(vector.empty());
  EXPECT_EQ(vector.capacity(), capacity);
}

TEST(ZPIHeapVectorTest, ExtendsByValuesForTheCallerToSet) {
  Bytes vector;
  append(&vector, "ab");
  for (int round = 0; round < 20; ++round) std::memcpy(vector.extend(3), "xyz", 3);
  ASSERT_EQ(vector.size(), 62U);
  EXPECT_TRUE(textOf(vector).starts_with("abxyzxyz"));
  EXPECT_EQ(vector.extend(1), vector.data() + 62);
  EXPECT_EQ(vector.size(), 63U);
}

TEST(ZPIHeapVectorTest, SwapsWithoutACopy) {
  Bytes left;
  Bytes right;
  append(&left, "left");
  const uint8_t* const storage = left.data();
  left.swap(right);
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(left.data(), nullptr);
  EXPECT_EQ(textOf(right), "left");
  EXPECT_EQ(right.data(), storage);
  append(&left, "new");
  EXPECT_EQ(textOf(left), "new");
}

TEST(ZPIHeapVectorTest, HandsOverItsStorage) {
  Bytes vector;
  append(&vector, "given");
  const uint8_t* const storage = vector.data();
  uint8_t* const given = vector.release();
  EXPECT_EQ(given, storage);
  EXPECT_EQ(std::memcmp(given, "given", 5), 0);
  EXPECT_TRUE(vector.empty());
  EXPECT_EQ(vector.capacity(), 0U);
  EXPECT_EQ(vector.release(), nullptr);
  append(&vector, "again");
  EXPECT_EQ(textOf(vector), "again");
  std::free(given);
}

TEST(ZPIHeapVectorTest, HoldsValuesOfSeveralBytes) {
  ZPIHeapVector<int64_t> vector;
  const int64_t values[] = {1, -2, std::numeric_limits<int64_t>::max()};
  for (int round = 0; round < 100; ++round) vector.append(values, 3);
  ASSERT_EQ(vector.size(), 300U);
  EXPECT_EQ(vector.data()[298], -2);
  EXPECT_EQ(vector.data()[299], std::numeric_limits<int64_t>::max());
}

TEST(ZPIHeapVectorTest, IsUnchangedWhenThereIsNoMemory) {
  Bytes vector;
  append(&vector, "kept");
  const std::string more(1000, 'z');
  SystemCalls calls;
  calls.failAllocation();
  EXPECT_THROW(append(&vector, more), std::bad_alloc);
  EXPECT_EQ(textOf(vector), "kept");
  append(&vector, more);
  EXPECT_EQ(textOf(vector), "kept" + more);
}

TEST(ZPIHeapVectorTest, RejectsALengthBeyondAnyMemory) {
  ZPIHeapVector<int64_t> vector;
  const int64_t value = 1;
  vector.append(&value, 1);
  // Volatile, since a compiler that knows the length rejects it too.
  const volatile size_t largest = std::numeric_limits<size_t>::max();
  EXPECT_THROW(vector.append(&value, largest), std::bad_alloc);
  EXPECT_THROW(vector.append(&value, largest / sizeof(int64_t)), std::bad_alloc);
  EXPECT_EQ(vector.size(), 1U);
}

}  // namespace
