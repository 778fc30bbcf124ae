#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Support/SystemCalls.h"
#include "Utility/ZPIRangeEnd.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

constexpr size_t kLargeBlock = 65536;  // what a read hands over

ZPKMutableDataPtr bufferOf(std::string_view bytes) {
  return ZPKMutableData::dataWithBytes(bytes.data(), bytes.size());
}

void append(const ZPKMutableDataPtr& buffer, std::string_view bytes) {
  buffer->append(bytes.data(), bytes.size());
}

// Bytes in a block of their own, which can change hands.
ZPKMutableDataPtr growingBufferOf(std::string_view bytes) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  append(buffer, bytes);
  return buffer;
}

uint64_t find(const ZPKMutableDataPtr& buffer, std::string_view pattern) {
  return buffer->find(*ZPKData::dataWithString(pattern)).location;
}

// A large block with few bytes in it, such as a short answer in a read's buffer.
ZPKMutableDataPtr sparseBufferOf(std::string_view bytes) {
  void* block = std::malloc(kLargeBlock);
  std::memcpy(block, bytes.data(), bytes.size());
  return ZPKMutableData::dataWithBytesNoCopy(block, bytes.size(), kLargeBlock);
}

std::string randomBytes(std::mt19937& random, size_t length) {
  std::string bytes(length, '\0');
  for (char& byte : bytes) byte = "\0ab\n"[random() % 4];
  return bytes;
}

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
  const ZPKMutableDataPtr buffer = bufferOf(bytes);
  bytes = "xyz";
  EXPECT_EQ(buffer->view(), "abc");
  EXPECT_TRUE(buffer->isMutable());
}

TEST(ZPKMutableDataTest, EveryHolderSeesAnEdit) {
  const ZPKMutableDataPtr buffer = bufferOf("abc");
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
  const ZPKMutableDataPtr buffer = bufferOf("abc");
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
      const ZPKMutableDataPtr buffer = bufferOf(text);
      buffer->dropFirst(dropped);
      std::string model(text.substr(dropped));
      const size_t length = model.size() - at;
      buffer->append(buffer->bytes() + at, length);
      ASSERT_EQ(buffer->view(), model + model.substr(at));
    }
  }
}

TEST(ZPKMutableDataTest, AppendingNothingChangesNothing) {
  const ZPKMutableDataPtr buffer = bufferOf("abc");
  buffer->append(nullptr, 0);
  buffer->append(*ZPKData::data());
  EXPECT_EQ(buffer->view(), "abc");
}

TEST(ZPKMutableDataTest, ContentsMayBeThoseOfTheBufferItself) {
  const ZPKMutableDataPtr buffer = bufferOf("abc");
  buffer->setContents(*buffer);
  EXPECT_EQ(buffer->view(), "abc");
}

TEST(ZPKMutableDataTest, ContentsAreReplacedWhole) {
  const ZPKMutableDataPtr buffer = bufferOf("abcdef");
  buffer->dropFirst(2);
  buffer->setContents(*ZPKData::dataWithString("xy"));
  EXPECT_EQ(buffer->view(), "xy");
  buffer->setContents(*ZPKData::data());
  EXPECT_EQ(buffer->view(), "");
}

TEST(ZPKMutableDataTest, ALongerLengthIsFilledWithZeros) {
  const ZPKMutableDataPtr buffer = bufferOf("abcdef");
  buffer->setLength(2);
  buffer->setLength(5);
  EXPECT_EQ(buffer->view(), std::string_view("ab\0\0\0", 5));
  buffer->setLength(0);
  buffer->setLength(2);
  EXPECT_EQ(buffer->view(), std::string_view("\0\0", 2));
}

TEST(ZPKMutableDataTest, ZeroingIsCutAtTheEnd) {
  const ZPKMutableDataPtr buffer = bufferOf("abcd");
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
  const ZPKMutableDataPtr buffer = bufferOf("abcdef");
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
  const ZPKMutableDataPtr buffer = bufferOf(std::string(1000, 'a'));
  const uint8_t* const bytes = buffer->bytes();
  buffer->dropFirst(10);
  EXPECT_EQ(buffer->bytes(), bytes + 10);
}

TEST(ZPKMutableDataTest, RoomThatADroppedFrontLeftIsUsedAgain) {
  const ZPKMutableDataPtr buffer = bufferOf(std::string(1000, 'a'));
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
    const ZPKMutableDataPtr buffer = bufferOf("abcdef");
    const ZPKMutableDataPtr first = buffer->takeFirst(count);
    const size_t taken = std::min<size_t>(count, 6);
    EXPECT_EQ(first->view(), std::string_view("abcdef").substr(0, taken));
    EXPECT_EQ(buffer->view(), std::string_view("abcdef").substr(taken));
  }
}

TEST(ZPKMutableDataTest, TakingFromAnEmptyBufferGivesEmptyData) {
  ZPKMutableData buffer;
  const ZPKMutableDataPtr first = buffer.takeFirst(3);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->length(), 0U);
  EXPECT_EQ(buffer.length(), 0U);
}

TEST(ZPKMutableDataTest, TheLongerPartKeepsTheStorage) {
  const ZPKMutableDataPtr buffer = growingBufferOf("abcdef");
  const uint8_t* const bytes = buffer->bytes();
  const ZPKMutableDataPtr shorter = buffer->takeFirst(2);
  EXPECT_EQ(buffer->bytes(), bytes + 2);
  const ZPKMutableDataPtr longer = buffer->takeFirst(3);
  EXPECT_EQ(longer->bytes(), bytes + 2);
  EXPECT_EQ(longer->view(), "cde");
  EXPECT_EQ(buffer->view(), "f");
}

TEST(ZPKMutableDataTest, AShortUnitIsOneAllocation) {
  const ZPKMutableDataPtr buffer = growingBufferOf(std::string(3000, 'a'));
  const SystemCalls calls;
  const ZPKMutableDataPtr unit = buffer->takeFirst(1024);
  EXPECT_EQ(calls.allocations(), 1U);
  EXPECT_EQ(unit->length(), 1024U);
}

TEST(ZPKMutableDataTest, TheFirstBytesMoveToAnotherBuffer) {
  for (size_t count = 0; count <= 7; ++count) {
    const ZPKMutableDataPtr buffer = bufferOf("abcdef");
    const ZPKMutableDataPtr target = bufferOf("what it held");
    buffer->moveFirst(count, target.get());
    const size_t moved = std::min<size_t>(count, 6);
    EXPECT_EQ(target->view(), std::string_view("abcdef").substr(0, moved));
    EXPECT_EQ(buffer->view(), std::string_view("abcdef").substr(moved));
  }
}

TEST(ZPKMutableDataTest, SwappingExchangesTheContents) {
  const ZPKMutableDataPtr left = growingBufferOf("left");
  const ZPKMutableDataPtr right = bufferOf("the right");
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
  const ZPKMutableDataPtr left = bufferOf("left");
  ZPKMutableDataPtr right = bufferOf("the right");
  const ZPKMutableDataPtr emptied = bufferOf("gone");
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

TEST(ZPKMutableDataTest, AnEmptyBufferTakesAnothersStorageOver) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  const ZPKMutableDataPtr other = growingBufferOf("abc");
  const uint8_t* const bytes = other->bytes();
  buffer->appendGivingUp(other.get());
  EXPECT_EQ(buffer->bytes(), bytes);
  EXPECT_EQ(buffer->view(), "abc");
  EXPECT_EQ(other->length(), 0U);
}

TEST(ZPKMutableDataTest, ABufferThatHoldsBytesAppendsAnothers) {
  const ZPKMutableDataPtr buffer = bufferOf("abc");
  const ZPKMutableDataPtr other = bufferOf("def");
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
  ZPKDataPtr given = bufferOf("abc");
  const ZPKData* const object = given.get();
  const ZPKMutableDataPtr taken = ZPKMutableData::mutableCopyGivingUp(std::move(given));
  EXPECT_EQ(taken.get(), object);
  EXPECT_EQ(taken.use_count(), 1);
  EXPECT_EQ(taken->view(), "abc");
}

TEST(ZPKMutableDataTest, SharedBytesAreCopied) {
  const ZPKMutableDataPtr shared = bufferOf("abc");
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

TEST(ZPKMutableDataTest, AMutableCopyOfNullIsNullAndOfEmptyEmpty) {
  EXPECT_EQ(ZPKMutableData::mutableCopyGivingUp(nullptr), nullptr);
  const ZPKMutableDataPtr empty = ZPKMutableData::mutableCopyGivingUp(ZPKData::data());
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->length(), 0U);
  append(empty, "a");
  EXPECT_EQ(ZPKData::data()->length(), 0U);
}

TEST(ZPKMutableDataTest, BytesMayBeTakenOverRightAfterAnotherThreadLetGo) {
  for (int round = 0; round < 100; ++round) {
    ZPKDataPtr data = bufferOf("abc");
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

// --- No large block is kept for few bytes.

TEST(ZPKMutableDataTest, DroppingAlmostAllGivesALargeBlockBack) {
  const ZPKMutableDataPtr buffer = bufferOf(std::string(kLargeBlock, 'a') + "rest");
  const uint8_t* const bytes = buffer->bytes();
  buffer->dropFirst(kLargeBlock);
  EXPECT_NE(buffer->bytes(), bytes + kLargeBlock);
  EXPECT_EQ(buffer->view(), "rest");
}

TEST(ZPKMutableDataTest, CuttingAlmostAllGivesALargeBlockBack) {
  const ZPKMutableDataPtr buffer = bufferOf("rest" + std::string(kLargeBlock, 'a'));
  const uint8_t* const bytes = buffer->bytes();
  buffer->setLength(4);
  EXPECT_NE(buffer->bytes(), bytes);
  EXPECT_EQ(buffer->view(), "rest");
}

TEST(ZPKMutableDataTest, EmptyingGivesALargeBlockBack) {
  using Emptying = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<Emptying> ways = {
      [](const ZPKMutableDataPtr& buffer) { buffer->dropFirst(buffer->length()); },
      [](const ZPKMutableDataPtr& buffer) { buffer->setLength(0); },
      [](const ZPKMutableDataPtr& buffer) { buffer->setContents(*ZPKData::data()); },
      [](const ZPKMutableDataPtr& buffer) { buffer->takeFirst(buffer->length()); },
      [](const ZPKMutableDataPtr& buffer) { ZPKMutableData().appendGivingUp(buffer.get()); },
      [](const ZPKMutableDataPtr& buffer) { bufferOf("a")->appendGivingUp(buffer.get()); },
  };
  for (const Emptying& empty : ways) {
    const ZPKMutableDataPtr buffer = bufferOf(std::string(kLargeBlock, 'a'));
    empty(buffer);
    EXPECT_EQ(buffer->length(), 0U);
    EXPECT_EQ(buffer->bytes(), nullptr);
    append(buffer, "usable again");
    EXPECT_EQ(buffer->view(), "usable again");
  }
}

TEST(ZPKMutableDataTest, FewNewContentsGiveALargeBlockBack) {
  const ZPKMutableDataPtr buffer = bufferOf(std::string(kLargeBlock, 'a'));
  buffer->setContents(*ZPKData::dataWithString("few"));
  EXPECT_EQ(buffer->view(), "few");
  EXPECT_LT(::malloc_usable_size(buffer->mutableBytes()), 1024U);
}

TEST(ZPKMutableDataTest, ABufferDoesNotTakeALargeBlockOverForFewBytes) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  const ZPKMutableDataPtr other = sparseBufferOf("few");
  buffer->appendGivingUp(other.get());
  EXPECT_EQ(buffer->view(), "few");
  EXPECT_LT(::malloc_usable_size(buffer->mutableBytes()), 1024U);
  EXPECT_EQ(other->bytes(), nullptr);
}

TEST(ZPKMutableDataTest, AUnitTakenOffALargeBlockDoesNotKeepIt) {
  const ZPKMutableDataPtr buffer = sparseBufferOf("unit;rest");
  const ZPKMutableDataPtr unit = buffer->takeFirst(5);
  EXPECT_EQ(unit->view(), "unit;");
  EXPECT_LT(::malloc_usable_size(unit->mutableBytes()), 1024U);
  EXPECT_EQ(buffer->view(), "rest");
  EXPECT_LT(::malloc_usable_size(buffer->mutableBytes()), 1024U);
}

TEST(ZPKMutableDataTest, ASmallBlockIsKeptForTheNextBytes) {
  const ZPKMutableDataPtr buffer = bufferOf(std::string(500, 'a'));
  const uint8_t* const bytes = buffer->bytes();
  buffer->dropFirst(500);
  append(buffer, std::string(500, 'b'));
  EXPECT_EQ(buffer->bytes(), bytes);
  buffer->setLength(0);
  append(buffer, std::string(500, 'c'));
  EXPECT_EQ(buffer->bytes(), bytes);
}

// --- Searching.

TEST(ZPKMutableDataTest, FindSearchesTheWholeBuffer) {
  const ZPKMutableDataPtr buffer = bufferOf("one two two");
  EXPECT_EQ(buffer->find(*ZPKData::dataWithString("two")), (ZPKRange{4, 3}));
  EXPECT_EQ(buffer->find(*ZPKData::dataWithString("three")), ZPKRange());
  EXPECT_EQ(buffer->find(*ZPKData::data()), ZPKRange());
  EXPECT_EQ(buffer->find(*buffer), (ZPKRange{0, 11}));
  EXPECT_EQ(ZPKMutableData().find(*ZPKData::dataWithString("a")), ZPKRange());
}

TEST(ZPKMutableDataTest, ASearchOverARangeIsThatOfAnyData) {
  const ZPKMutableDataPtr buffer = bufferOf("two two");
  EXPECT_EQ(buffer->find(*ZPKData::dataWithString("two"), {1, 6}), (ZPKRange{4, 3}));
  EXPECT_EQ(buffer->find(*ZPKData::dataWithString("two"), {1, 5}), ZPKRange());
}

TEST(ZPKMutableDataTest, AFoundPatternIsFoundAgain) {
  const ZPKMutableDataPtr buffer = bufferOf("..");
  EXPECT_EQ(find(buffer, "=> "), ZPKNotFound);
  append(buffer, "=> => ");
  EXPECT_EQ(find(buffer, "=> "), 2U);
  EXPECT_EQ(find(buffer, "=> "), 2U);
}

// The needle comes in two or three parts, searched for in between.
//
//     ....ne|edle       ....n|eed|le
TEST(ZPKMutableDataTest, APatternSplitOverAppendsAtEveryPlaceIsFound) {
  const std::string needle = "needle";
  for (size_t before : {0, 1, 5, 100}) {
    for (size_t first = 0; first <= needle.size(); ++first) {
      for (size_t second = first; second <= needle.size(); ++second) {
        const ZPKMutableDataPtr buffer = bufferOf(std::string(before, '.'));
        append(buffer, needle.substr(0, first));
        ASSERT_EQ(find(buffer, needle), first < needle.size() ? ZPKNotFound : before);
        append(buffer, needle.substr(first, second - first));
        ASSERT_EQ(find(buffer, needle), second < needle.size() ? ZPKNotFound : before);
        append(buffer, needle.substr(second));
        ASSERT_EQ(find(buffer, needle), before);
      }
    }
  }
}

TEST(ZPKMutableDataTest, AnotherPatternIsSearchedFromTheStart) {
  const ZPKMutableDataPtr buffer = bufferOf("needle in a stack");
  EXPECT_EQ(find(buffer, "hay"), ZPKNotFound);
  EXPECT_EQ(find(buffer, "needle"), 0U);
  EXPECT_EQ(find(buffer, "nee"), 0U);
  append(buffer, " of hay");
  EXPECT_EQ(find(buffer, "hay"), 21U);
}

TEST(ZPKMutableDataTest, AShorterOrLongerPatternIsAnotherOne) {
  const ZPKMutableDataPtr buffer = bufferOf("abcab");
  EXPECT_EQ(find(buffer, "abcd"), ZPKNotFound);
  EXPECT_EQ(find(buffer, "abc"), 0U);
  EXPECT_EQ(find(buffer, "abcab"), 0U);
}

// Writes behind the buffer's back, which nobody may: that it goes unnoticed shows where a search
// begins.
void writeUnnoticed(const ZPKMutableDataPtr& buffer, std::string_view bytes) {
  std::memcpy(const_cast<uint8_t*>(buffer->bytes()), bytes.data(), bytes.size());
}

TEST(ZPKMutableDataTest, AfterAFailedSearchOnlyNewBytesAreLookedAt) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(100);
  append(buffer, "..........");
  EXPECT_EQ(find(buffer, "ab"), ZPKNotFound);
  writeUnnoticed(buffer, "ab");
  append(buffer, "..");
  EXPECT_EQ(find(buffer, "ab"), ZPKNotFound);
  append(buffer, "ab");
  EXPECT_EQ(find(buffer, "ab"), 12U);
  buffer->mutableBytes();
  EXPECT_EQ(find(buffer, "ab"), 0U);
}

TEST(ZPKMutableDataTest, FindSeesWhatAnOldPointerWrote) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(100);
  append(buffer, "..........");
  uint8_t* const pointer = buffer->mutableBytes();
  for (const char* const pattern : {"ab", "cd", "ab"}) {
    EXPECT_EQ(find(buffer, pattern), ZPKNotFound);
    std::memcpy(pointer + 4, pattern, 2);
    EXPECT_EQ(find(buffer, pattern), 4U);
  }
}

// Each leaves the bytes where they are, and most callers do not know which edits do.
TEST(ZPKMutableDataTest, AnEditInPlaceDoesNotHideWhatAnOldPointerWrites) {
  using Edit = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<std::pair<const char*, Edit>> edits = {
      {"append", [](const auto& buffer) { append(buffer, "..."); }},
      {"setLength", [](const auto& buffer) { buffer->setLength(9); }},
      {"zeroRange",
       [](const auto& buffer) {
         buffer->zeroRange({4, 1});
       }},
      {"setContents", [](const auto& buffer) { buffer->setContents(*bufferOf("........")); }},
      {"dropFirst", [](const auto& buffer) { buffer->dropFirst(0); }},
  };
  for (const auto& [name, edit] : edits) {
    const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(100);
    append(buffer, "..........");
    uint8_t* const pointer = buffer->mutableBytes();
    edit(buffer);
    ASSERT_EQ(find(buffer, "ab"), ZPKNotFound);
    std::memcpy(pointer, "ab", 2);
    EXPECT_EQ(find(buffer, "ab"), 0U) << name;
  }
}

TEST(ZPKMutableDataTest, APointerGoesWithItsBytesToAnotherBuffer) {
  const ZPKMutableDataPtr buffer = growingBufferOf("..........");
  const ZPKMutableDataPtr other = ZPKMutableData::data();
  uint8_t* const pointer = buffer->mutableBytes();
  other->appendGivingUp(buffer.get());
  append(buffer, "..........");
  ASSERT_EQ(find(other, "ab"), ZPKNotFound);
  ASSERT_EQ(find(buffer, "ab"), ZPKNotFound);
  std::memcpy(pointer, "ab", 2);
  writeUnnoticed(buffer, "ab");
  EXPECT_EQ(find(other, "ab"), 0U);
  EXPECT_EQ(find(buffer, "ab"), ZPKNotFound);
}

TEST(ZPKMutableDataTest, OnceTheBytesHaveMovedSearchesAreRememberedAgain) {
  using Move = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<std::pair<const char*, Move>> moves = {
      {"growth", [](const auto& buffer) { append(buffer, std::string(5000, '.')); }},
      {"growth with a dropped front",
       [](const auto& buffer) {
         buffer->dropFirst(100);
         append(buffer, std::string(5000, '.'));
       }},
      {"use of the dropped front",
       [](const auto& buffer) {
         buffer->dropFirst(1200);
         append(buffer, std::string(100, '.'));
       }},
      {"release of room", [](const auto& buffer) { buffer->dropFirst(1990); }},
      {"swap", [](const auto& buffer) { buffer->swap(*growingBufferOf("..........")); }},
  };
  for (const auto& [name, move] : moves) {
    const ZPKMutableDataPtr buffer = growingBufferOf(std::string(2000, '.'));
    buffer->mutableBytes();
    move(buffer);
    ASSERT_EQ(find(buffer, "ab"), ZPKNotFound);
    writeUnnoticed(buffer, "ab");
    EXPECT_EQ(find(buffer, "ab"), ZPKNotFound) << name;
  }
}

TEST(ZPKMutableDataTest, EveryEditButAnAppendForgetsAFailedSearch) {
  const std::string zeros(2, '\0');
  using Edit = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<std::pair<const char*, Edit>> edits = {
      {"mutableBytes", [](const auto& buffer) { std::memset(buffer->mutableBytes() + 1, 0, 2); }},
      {"zeroRange",
       [](const auto& buffer) {
         buffer->zeroRange({1, 2});
       }},
      {"setLength",
       [](const auto& buffer) {
         buffer->setLength(1);
         buffer->setLength(10);
       }},
      {"setContents",
       [](const auto& buffer) {
         buffer->setContents(*bufferOf({".\0\0.......", 10}));
       }},
      {"swap",
       [](const auto& buffer) {
         buffer->swap(*bufferOf({".\0\0.......", 10}));
       }},
      {"appendGivingUp",
       [](const auto& buffer) {
         buffer->setLength(0);
         buffer->appendGivingUp(bufferOf({".\0\0.......", 10}).get());
       }},
      {"dropFirst",
       [](const auto& buffer) {
         buffer->dropFirst(9);
         append(buffer, {"\0\0.......", 9});
       }},
      {"takeFirst",
       [](const auto& buffer) {
         buffer->takeFirst(9);
         append(buffer, {"\0\0.......", 9});
       }},
  };
  for (const auto& [name, edit] : edits) {
    const ZPKMutableDataPtr buffer = bufferOf("..........");
    ASSERT_EQ(find(buffer, zeros), ZPKNotFound);
    edit(buffer);
    EXPECT_EQ(find(buffer, zeros), 1U) << name;
  }
}

TEST(ZPKMutableDataTest, ATakenUnitForgetsASearchOfTheBufferItCameFrom) {
  const ZPKMutableDataPtr buffer = bufferOf("..........");
  EXPECT_EQ(find(buffer, "ab"), ZPKNotFound);
  const ZPKMutableDataPtr first = buffer->takeFirst(10);
  first->setContents(*ZPKData::dataWithString(".ab......."));
  EXPECT_EQ(find(first, "ab"), 1U);
  append(buffer, ".ab.......");
  EXPECT_EQ(find(buffer, "ab"), 1U);
}

TEST(ZPKMutableDataTest, ABufferMayBeThePatternOfAnother) {
  const ZPKMutableDataPtr pattern = bufferOf("ab");
  const ZPKMutableDataPtr buffer = bufferOf("..........");
  EXPECT_EQ(buffer->find(*pattern), ZPKRange());
  pattern->setContents(*ZPKData::dataWithString("."));
  EXPECT_EQ(buffer->find(*pattern), (ZPKRange{0, 1}));
}

// --- Everything together, against strings.

class BufferAndModel {
 public:
  void check() const { ASSERT_EQ(buffer->view(), model); }

  ZPKMutableDataPtr buffer = ZPKMutableData::data();
  std::string model;
};

class RandomEdits {
 public:
  explicit RandomEdits(unsigned seed) : _random(seed) {}

  void step() {
    BufferAndModel& one = _pairs[below(3)];
    BufferAndModel& other = _pairs[below(3)];
    switch (below(16)) {
      case 0: appendBytes(one); break;
      case 1: appendOwnPart(one); break;
      case 2: appendOther(one, other); break;
      case 3: appendGivingUp(one, other); break;
      case 4: setContents(one, other); break;
      case 5: setLength(one); break;
      case 6: zeroRange(one); break;
      case 7: dropFirst(one); break;
      case 8: takeFirst(one, other); break;
      case 9: swap(one, other); break;
      case 10: writeByte(one); break;
      case 11: giveUp(one); break;
      case 12: moveFirst(one, other); break;
      case 13: one.buffer = bufferOf(one.model); break;
      default: find(one); break;
    }
    one.check();
    other.check();
  }

 private:
  size_t below(size_t limit) { return limit == 0 ? 0 : _random() % limit; }
  // Mostly small, now and then beyond the size of a block that is always kept.
  size_t size() { return below(10) == 0 ? below(6000) : below(40); }

  void appendBytes(BufferAndModel& one) {
    const std::string bytes = randomBytes(_random, size());
    one.buffer->append(bytes.data(), bytes.size());
    one.model += bytes;
  }

  void appendOwnPart(BufferAndModel& one) {
    if (one.model.size() > 10000) return;
    const size_t at = below(one.model.size());
    const size_t length = below(one.model.size() - at + 1);
    one.buffer->append(one.buffer->bytes() + at, length);
    one.model += one.model.substr(at, length);
  }

  void appendOther(BufferAndModel& one, const BufferAndModel& other) {
    if (one.model.size() > 10000) return;
    one.buffer->append(*other.buffer);
    one.model += other.model;
  }

  void appendGivingUp(BufferAndModel& one, BufferAndModel& other) {
    if (&one == &other) return;
    one.buffer->appendGivingUp(other.buffer.get());
    one.model += other.model;
    other.model.clear();
  }

  void setContents(BufferAndModel& one, const BufferAndModel& other) {
    one.buffer->setContents(*other.buffer);
    one.model = other.model;
  }

  void setLength(BufferAndModel& one) {
    const size_t length = size();
    one.buffer->setLength(length);
    one.model.resize(length, '\0');
  }

  void zeroRange(BufferAndModel& one) {
    const size_t at = below(one.model.size() + 2);
    const size_t length = size();
    one.buffer->zeroRange({at, length});
    for (size_t i = at; i < std::min(one.model.size(), at + length); ++i) one.model[i] = '\0';
  }

  void dropFirst(BufferAndModel& one) {
    const size_t count = below(one.model.size() + 3);
    one.buffer->dropFirst(count);
    one.model.erase(0, count);
  }

  void takeFirst(BufferAndModel& one, BufferAndModel& other) {
    if (&one == &other) return;
    const size_t count = below(one.model.size() + 3);
    other.buffer = one.buffer->takeFirst(count);
    other.model = one.model.substr(0, count);
    one.model.erase(0, count);
  }

  void moveFirst(BufferAndModel& one, BufferAndModel& other) {
    if (&one == &other) return;
    const size_t count = below(one.model.size() + 3);
    one.buffer->moveFirst(count, other.buffer.get());
    other.model = one.model.substr(0, count);
    one.model.erase(0, count);
  }

  void swap(BufferAndModel& one, BufferAndModel& other) {
    one.buffer->swap(*other.buffer);
    if (&one != &other) one.model.swap(other.model);
  }

  void writeByte(BufferAndModel& one) {
    if (one.model.empty()) return;
    const size_t at = below(one.model.size());
    uint8_t* const pointer = one.buffer->mutableBytes();
    if (below(2) == 0) find(one);
    pointer[at] = 'b';
    one.model[at] = 'b';
  }

  void giveUp(BufferAndModel& one) {
    ZPKDataPtr given = one.buffer;
    if (below(2) == 0) one.buffer = nullptr;
    one.buffer = ZPKMutableData::mutableCopyGivingUp(std::move(given));
  }

  void find(BufferAndModel& one) {
    static const std::array<std::string, 5> patterns = {"ab", "a\nb\nab", "bbbbbb", "\n",
                                                        std::string("\0\0a", 3)};
    const std::string& pattern = patterns[below(patterns.size())];
    const size_t expected = one.model.find(pattern);
    const ZPKRange found = one.buffer->find(*ZPKData::dataWithString(pattern));
    ASSERT_EQ(found.location, expected == std::string::npos ? ZPKNotFound : expected);
    ASSERT_EQ(found.length, expected == std::string::npos ? 0 : pattern.size());
  }

  std::mt19937 _random;
  std::array<BufferAndModel, 3> _pairs;
};

TEST(ZPKMutableDataTest, RandomEditsAgreeWithAString) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    RandomEdits edits(seed);
    for (int step = 0; step < 1500 && !HasFatalFailure(); ++step) edits.step();
    ASSERT_FALSE(HasFatalFailure()) << "seed " << seed;
  }
}

// A stream that is cut into units as it comes, as an aggregator does.
TEST(ZPKMutableDataTest, UnitsCutOffAGrowingBufferAreThoseOfTheStream) {
  std::mt19937 random(3);
  const std::string stream = randomBytes(random, 60000);
  const ZPKDataPtr terminator = ZPKData::dataWithString("\na");
  ZPKMutableData buffer;
  std::string joined;
  for (size_t at = 0; at < stream.size();) {
    const size_t count = std::min(stream.size() - at, random() % 20 == 0 ? 5000 : random() % 9);
    buffer.append(stream.data() + at, count);
    at += count;
    for (ZPKRange found = buffer.find(*terminator); found.location != ZPKNotFound;
         found = buffer.find(*terminator)) {
      const ZPKMutableDataPtr unit = buffer.takeFirst(ZPIRangeEnd(found));
      ASSERT_EQ(unit->view().find("\na"), unit->length() - 2);
      joined += unit->view();
    }
    ASSERT_EQ(buffer.view().find("\na"), std::string_view::npos);
  }
  EXPECT_EQ(joined + std::string(buffer.view()), stream);
}

}  // namespace
