#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "Support/Bytes.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

TEST(ZPKMutableDataTest, ANewBufferIsEmpty) {
  EXPECT_EQ(ZPKMutableData().length(), 0U);
  EXPECT_EQ(ZPKMutableData::data()->view(), "");
  EXPECT_EQ(ZPKMutableData::dataWithCapacity(100)->length(), 0U);
  EXPECT_EQ(ZPKMutableData::dataWithCapacity(0)->length(), 0U);
  EXPECT_EQ(ZPKMutableData::dataWithBytes(nullptr, 0)->length(), 0U);
  EXPECT_NE(ZPKMutableData::data(), ZPKMutableData::data());
}

TEST(ZPKMutableDataTest, BytesAppendedWithinTheCapacityStayWhereTheyAre) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(1000);
  append(buffer, "a");
  const uint8_t* const bytes = buffer->bytes();
  append(buffer, std::string(999, 'b'));
  EXPECT_EQ(buffer->bytes(), bytes);
  EXPECT_EQ(buffer->view(), "a" + std::string(999, 'b'));
}

TEST(ZPKMutableDataTest, AHeapBlockIsTakenOverWithoutACopy) {
  void* block = std::malloc(8);
  std::memcpy(block, "abc", 3);
  const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithBytesNoCopy(block, 3, 8);
  append(buffer, "defgh");
  EXPECT_EQ(buffer->bytes(), block);
  append(buffer, "i");
  EXPECT_EQ(buffer->view(), "abcdefghi");
}

TEST(ZPKMutableDataTest, ACopyOfBytesIsIndependentOfThem) {
  std::string bytes = "abc";
  const ZPKMutableDataPtr buffer = unitOf(bytes);
  bytes = "xyz";
  EXPECT_EQ(buffer->view(), "abc");
  EXPECT_TRUE(buffer->isMutable());
}

TEST(ZPKMutableDataTest, EveryHolderSeesAnEdit) {
  const ZPKMutableDataPtr buffer = unitOf("abc");
  const ZPKDataPtr sameBuffer = buffer;
  buffer->setContents(*ZPKData::dataWithString("something much longer than before"));
  EXPECT_EQ(sameBuffer->view(), "something much longer than before");
  buffer->setLength(0);
  EXPECT_EQ(sameBuffer->length(), 0U);
}

TEST(ZPKMutableDataTest, ItGrowsByteByByteThroughEverySize) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  std::string model;
  for (int i = 0; i < 5000; ++i) {
    const char byte = static_cast<char>(i * 7);
    buffer->append(&byte, 1);
    model.push_back(byte);
    ASSERT_EQ(buffer->view(), model);
  }
}

TEST(ZPKMutableDataTest, ItGrowsByChunksOfEverySizeFromEveryLength) {
  const std::string filler(300, 'x');
  for (size_t length = 0; length < 130; ++length) {
    for (size_t added = 0; added < 130; added += 3) {
      ZPKMutableData buffer;
      buffer.append(filler.data(), length);
      buffer.append(filler.data(), added);
      ASSERT_EQ(buffer.view(), filler.substr(0, length + added));
    }
  }
}

TEST(ZPKMutableDataTest, ABufferMayBeAppendedToItself) {
  const ZPKMutableDataPtr buffer = unitOf("abc");
  std::string model = "abc";
  for (int i = 0; i < 10; ++i) {
    buffer->append(*buffer);
    model += model;
    ASSERT_EQ(buffer->view(), model);
  }
}

TEST(ZPKMutableDataTest, EveryPartOfABufferMayBeAppendedToIt) {
  constexpr std::string_view text = "0123456789";
  for (size_t dropped = 0; dropped < text.size(); ++dropped) {
    for (size_t at = 0; at + dropped < text.size(); ++at) {
      const ZPKMutableDataPtr buffer = unitOf(text);
      buffer->dropFirst(dropped);
      std::string model(text.substr(dropped));
      const size_t length = model.size() - at;
      buffer->append(buffer->bytes() + at, length);
      ASSERT_EQ(buffer->view(), model + model.substr(at));
    }
  }
}

TEST(ZPKMutableDataTest, AppendingNothingChangesNothing) {
  const ZPKMutableDataPtr buffer = unitOf("abc");
  buffer->append(nullptr, 0);
  buffer->append(*ZPKData::data());
  EXPECT_EQ(buffer->view(), "abc");
}

TEST(ZPKMutableDataTest, ABufferMayBeSetToItsOwnContents) {
  const ZPKMutableDataPtr buffer = unitOf("abc");
  buffer->setContents(*buffer);
  EXPECT_EQ(buffer->view(), "abc");
}

TEST(ZPKMutableDataTest, ContentsAreReplacedWhole) {
  const ZPKMutableDataPtr buffer = unitOf("abcdef");
  buffer->dropFirst(2);
  buffer->setContents(*ZPKData::dataWithString("xy"));
  EXPECT_EQ(buffer->view(), "xy");
  buffer->setContents(*ZPKData::data());
  EXPECT_EQ(buffer->view(), "");
}

TEST(ZPKMutableDataTest, ALongerLengthIsFilledWithZeros) {
  const ZPKMutableDataPtr buffer = unitOf("abcdef");
  buffer->setLength(2);
  buffer->setLength(5);
  EXPECT_EQ(buffer->view(), std::string_view("ab\0\0\0", 5));
  buffer->setLength(0);
  buffer->setLength(2);
  EXPECT_EQ(buffer->view(), std::string_view("\0\0", 2));
}

TEST(ZPKMutableDataTest, ZeroingStopsAtTheEnd) {
  const ZPKMutableDataPtr buffer = unitOf("abcd");
  buffer->zeroRange({1, 1});
  EXPECT_EQ(buffer->view(), std::string_view("a\0cd", 4));
  buffer->zeroRange({3, SIZE_MAX});
  EXPECT_EQ(buffer->view(), std::string_view("a\0c\0", 4));
  buffer->zeroRange({4, 1});
  buffer->zeroRange({ZPKNotFound, 5});
  buffer->zeroRange({0, 0});
  EXPECT_EQ(buffer->view(), std::string_view("a\0c\0", 4));
}

TEST(ZPKMutableDataTest, BytesAreDroppedAtTheFront) {
  const ZPKMutableDataPtr buffer = unitOf("abcdef");
  buffer->dropFirst(0);
  EXPECT_EQ(buffer->view(), "abcdef");
  buffer->dropFirst(2);
  EXPECT_EQ(buffer->view(), "cdef");
  append(buffer, "g");
  EXPECT_EQ(buffer->view(), "cdefg");
  buffer->dropFirst(SIZE_MAX);
  EXPECT_EQ(buffer->view(), "");
  buffer->dropFirst(1);
  append(buffer, "h");
  EXPECT_EQ(buffer->view(), "h");
}

TEST(ZPKMutableDataTest, DroppingMovesNoBytes) {
  const ZPKMutableDataPtr buffer = unitOf(std::string(1000, 'a'));
  const uint8_t* const bytes = buffer->bytes();
  buffer->dropFirst(10);
  EXPECT_EQ(buffer->bytes(), bytes + 10);
}

TEST(ZPKMutableDataTest, RoomLeftByADroppedFrontIsReused) {
  const ZPKMutableDataPtr buffer = unitOf(std::string(1000, 'a'));
  const uint8_t* const block = buffer->bytes();
  buffer->dropFirst(900);
  append(buffer, std::string(200, 'b'));
  EXPECT_EQ(buffer->bytes(), block);
  EXPECT_EQ(buffer->view(), std::string(100, 'a') + std::string(200, 'b'));
  buffer->dropFirst(300);
  append(buffer, std::string(1000, 'c'));
  EXPECT_EQ(buffer->bytes(), block);
}

TEST(ZPKMutableDataTest, TakingTheFirstBytesLeavesTheRest) {
  for (size_t count = 0; count <= 7; ++count) {
    const ZPKMutableDataPtr buffer = unitOf("abcdef");
    const ZPKMutableDataPtr first = buffer->takeFirst(count);
    const size_t taken = std::min<size_t>(count, 6);
    EXPECT_EQ(first->view(), std::string_view("abcdef").substr(0, taken));
    EXPECT_EQ(buffer->view(), std::string_view("abcdef").substr(taken));
  }
}

TEST(ZPKMutableDataTest, TakingThroughAPatternLeavesTheRest) {
  const auto buffer = ZPKMutableData::dataWithBytes("a;bb;ccccccccc", 14);
  EXPECT_EQ(buffer->takeThrough(*dataOf(";"))->view(), "a;");
  EXPECT_EQ(buffer->takeThrough(*dataOf("b;"))->view(), "bb;");
  EXPECT_EQ(buffer->takeThrough(*dataOf(";")), nullptr);
  EXPECT_EQ(buffer->takeThrough(*ZPKData::data()), nullptr);
  EXPECT_EQ(buffer->view(), "ccccccccc");
  EXPECT_EQ(buffer->takeThrough(*dataOf("cccccccc"))->view(), "cccccccc");
  EXPECT_EQ(buffer->view(), "c");
  EXPECT_EQ(buffer->takeThrough(*dataOf("c"))->view(), "c");
  EXPECT_EQ(buffer->view(), "");
  EXPECT_EQ(buffer->takeThrough(*dataOf("c")), nullptr);
}

TEST(ZPKMutableDataTest, TakingFromAnEmptyBufferGivesEmptyData) {
  ZPKMutableData buffer;
  const ZPKMutableDataPtr first = buffer.takeFirst(3);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->length(), 0U);
  EXPECT_EQ(buffer.length(), 0U);
}

TEST(ZPKMutableDataTest, TheLongerPartKeepsTheStorage) {
  const ZPKMutableDataPtr buffer = chunkOf("abcdef");
  const uint8_t* const bytes = buffer->bytes();
  const ZPKMutableDataPtr shorter = buffer->takeFirst(2);
  EXPECT_EQ(buffer->bytes(), bytes + 2);
  const ZPKMutableDataPtr longer = buffer->takeFirst(3);
  EXPECT_EQ(longer->bytes(), bytes + 2);
  EXPECT_EQ(longer->view(), "cde");
  EXPECT_EQ(buffer->view(), "f");
}

TEST(ZPKMutableDataTest, AShortUnitIsOneAllocation) {
  const ZPKMutableDataPtr buffer = chunkOf(std::string(3000, 'a'));
  const SystemCalls calls;
  const ZPKMutableDataPtr unit = buffer->takeFirst(904);
  EXPECT_EQ(calls.allocations(), 1U);
  EXPECT_EQ(unit->length(), 904U);
  const ZPKMutableDataPtr longer = buffer->takeFirst(905);
  EXPECT_EQ(calls.allocations(), 3U);
  EXPECT_EQ(longer->length(), 905U);
}

// Every unit that is read is such an object.
TEST(ZPKMutableDataTest, TheObjectIsSmall) { EXPECT_LE(sizeof(ZPKMutableData), 96U); }

TEST(ZPKMutableDataTest, TheFirstBytesMoveToAnotherBuffer) {
  for (size_t count = 0; count <= 7; ++count) {
    const ZPKMutableDataPtr buffer = unitOf("abcdef");
    const ZPKMutableDataPtr target = unitOf("what it held");
    buffer->moveFirst(count, target.get());
    const size_t moved = std::min<size_t>(count, 6);
    EXPECT_EQ(target->view(), std::string_view("abcdef").substr(0, moved));
    EXPECT_EQ(buffer->view(), std::string_view("abcdef").substr(moved));
  }
}

TEST(ZPKMutableDataTest, SwappingExchangesTheContents) {
  const ZPKMutableDataPtr left = chunkOf("left");
  const ZPKMutableDataPtr right = unitOf("the right");
  left->dropFirst(1);
  const uint8_t* const bytes = left->bytes();
  left->swap(*right);
  EXPECT_EQ(left->view(), "the right");
  EXPECT_EQ(right->view(), "eft");
  EXPECT_EQ(right->bytes(), bytes);
  left->swap(*left);
  EXPECT_EQ(left->view(), "the right");
}

TEST(ZPKMutableDataTest, BytesThatLieWithinTheirObjectCanBeSwappedToo) {
  const ZPKMutableDataPtr left = unitOf("left");
  ZPKMutableDataPtr right = unitOf("the right");
  const ZPKMutableDataPtr emptied = unitOf("gone");
  emptied->setLength(0);
  left->swap(*right);
  right->swap(*emptied);
  EXPECT_EQ(left->view(), "the right");
  EXPECT_EQ(right->view(), "");
  right = nullptr;
  append(emptied, " and more");
  append(left, " one");
  EXPECT_EQ(emptied->view(), "left and more");
  EXPECT_EQ(left->view(), "the right one");
}

TEST(ZPKMutableDataTest, AnEmptyBufferTakesOverAnothersStorage) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  const ZPKMutableDataPtr other = chunkOf("abc");
  const uint8_t* const bytes = other->bytes();
  buffer->appendGivingUp(other.get());
  EXPECT_EQ(buffer->bytes(), bytes);
  EXPECT_EQ(buffer->view(), "abc");
  EXPECT_EQ(other->length(), 0U);
}

TEST(ZPKMutableDataTest, ABufferThatHoldsBytesAppendsAnothers) {
  const ZPKMutableDataPtr buffer = unitOf("abc");
  const ZPKMutableDataPtr other = unitOf("def");
  other->dropFirst(1);
  buffer->appendGivingUp(other.get());
  EXPECT_EQ(buffer->view(), "abcef");
  EXPECT_EQ(other->length(), 0U);
  buffer->appendGivingUp(other.get());
  EXPECT_EQ(buffer->view(), "abcef");
  append(other, "usable again");
  EXPECT_EQ(other->view(), "usable again");
}

TEST(ZPKMutableDataTest, ASoleOwnersBytesAreTakenOver) {
  ZPKDataPtr given = unitOf("abc");
  const ZPKData* const object = given.get();
  const ZPKMutableDataPtr taken = ZPKMutableData::mutableCopyGivingUp(std::move(given));
  EXPECT_EQ(taken.get(), object);
  EXPECT_EQ(taken.use_count(), 1);
  EXPECT_EQ(taken->view(), "abc");
}

TEST(ZPKMutableDataTest, SharedBytesAreCopied) {
  const ZPKMutableDataPtr shared = unitOf("abc");
  const ZPKMutableDataPtr copy = ZPKMutableData::mutableCopyGivingUp(ZPKDataPtr(shared));
  EXPECT_NE(copy, shared);
  EXPECT_EQ(shared.use_count(), 1);
  append(copy, "d");
  EXPECT_EQ(shared->view(), "abc");
  EXPECT_EQ(copy->view(), "abcd");
}

TEST(ZPKMutableDataTest, ImmutableBytesAreCopiedEvenFromASoleOwner) {
  ZPKDataPtr given = ZPKData::dataWithString("abc");
  const ZPKData* const object = given.get();
  const std::weak_ptr<const ZPKData> watch = given;
  const ZPKMutableDataPtr copy = ZPKMutableData::mutableCopyGivingUp(std::move(given));
  EXPECT_NE(copy.get(), object);
  EXPECT_EQ(copy->view(), "abc");
  EXPECT_TRUE(watch.expired());
}

TEST(ZPKMutableDataTest, MutableCopiesOfNullAreNullAndOfEmptyEmpty) {
  EXPECT_EQ(ZPKMutableData::mutableCopyGivingUp(nullptr), nullptr);
  const ZPKMutableDataPtr empty = ZPKMutableData::mutableCopyGivingUp(ZPKData::data());
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->length(), 0U);
  append(empty, "a");
  EXPECT_EQ(ZPKData::data()->length(), 0U);
}

TEST(ZPKMutableDataTest, BytesCanBeTakenOverAfterAnotherThreadsRelease) {
  for (int round = 0; round < 100; ++round) {
    ZPKDataPtr data = unitOf("abc");
    size_t sum = 0;
    std::thread reader([other = data, &sum]() mutable {
      for (const char byte : other->view()) sum += static_cast<size_t>(byte);
      other.reset();
    });
    while (data.use_count() != 1) std::this_thread::yield();
    const ZPKMutableDataPtr taken = ZPKMutableData::mutableCopyGivingUp(std::move(data));
    std::memset(taken->mutableBytes(), 'x', taken->length());
    reader.join();
    ASSERT_EQ(sum, size_t{'a' + 'b' + 'c'});
    ASSERT_EQ(taken->view(), "xxx");
  }
}

}  // namespace
