#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "Support/SystemCalls.h"
#include "Utility/ZPIBlock.h"

namespace {

class ZPIBlockTest : public testing::Test {
 protected:
  ~ZPIBlockTest() override {
    if (!block.isWithinObject) std::free(block.storage);
  }

  void placeInMemory(std::string_view bytes, size_t capacity) {
    auto* storage = static_cast<uint8_t*>(std::malloc(capacity));
    std::memcpy(storage, bytes.data(), bytes.size());
    ZPIBlock::place(block, storage, bytes.size(), capacity);
  }
  void placeInObject(std::string_view bytes) {
    std::memcpy(object.data(), bytes.data(), bytes.size());
    ZPIBlock::place(block, object.data(), bytes.size(), object.size(), true);
  }
  std::string bytes() const {
    return {reinterpret_cast<const char*>(block.storage) + block.head, block.length};
  }

  std::array<uint8_t, 16> object{};
  ZPIBlock::Block block{true};
};

TEST_F(ZPIBlockTest, RoomAtTheEndNeedsNoMove) {
  placeInMemory("abc", 10);
  const uint8_t* const storage = block.storage;
  EXPECT_FALSE(ZPIBlock::reserveAtEnd(block, 7));
  EXPECT_EQ(block.storage, storage);
  EXPECT_TRUE(ZPIBlock::reserveAtEnd(block, 8));
  EXPECT_GE(block.capacity, 11U);
  EXPECT_EQ(bytes(), "abc");
}

TEST_F(ZPIBlockTest, AnEmptyBlockGetsRoom) {
  EXPECT_FALSE(ZPIBlock::reserveAtEnd(block, 0));
  EXPECT_EQ(block.storage, nullptr);
  EXPECT_TRUE(ZPIBlock::reserveAtEnd(block, 1));
  EXPECT_NE(block.storage, nullptr);
  EXPECT_EQ(block.length, 0U);
}

// [......abcd] becomes [abcd......] if that makes enough room, and half of it is free.
TEST_F(ZPIBlockTest, ADroppedFrontIsReused) {
  placeInMemory("......abcd", 10);
  const uint8_t* const storage = block.storage;
  EXPECT_FALSE(ZPIBlock::dropFirst(block, 6));
  EXPECT_TRUE(ZPIBlock::reserveAtEnd(block, 1));
  EXPECT_EQ(block.storage, storage);
  EXPECT_EQ(block.head, 0U);
  EXPECT_EQ(bytes(), "abcd");
}

TEST_F(ZPIBlockTest, BytesFillingMostOfABlockGetANewOne) {
  placeInMemory(".abcd", 5);
  EXPECT_FALSE(ZPIBlock::dropFirst(block, 1));
  EXPECT_TRUE(ZPIBlock::reserveAtEnd(block, 1));
  EXPECT_EQ(block.head, 0U);
  EXPECT_GT(block.capacity, 5U);
  EXPECT_EQ(bytes(), "abcd");
}

TEST_F(ZPIBlockTest, BytesWithinTheirObjectMoveOutToGrow) {
  placeInObject("abc");
  EXPECT_FALSE(ZPIBlock::reserveAtEnd(block, 13));
  EXPECT_TRUE(block.isWithinObject);
  EXPECT_TRUE(ZPIBlock::reserveAtEnd(block, 14));
  EXPECT_FALSE(block.isWithinObject);
  EXPECT_EQ(bytes(), "abc");
}

TEST_F(ZPIBlockTest, BytesMoveOutOfTheirObjectOneTime) {
  placeInObject(".abc");
  EXPECT_FALSE(ZPIBlock::dropFirst(block, 1));
  EXPECT_TRUE(ZPIBlock::leaveObject(block));
  EXPECT_NE(block.storage, object.data());
  EXPECT_EQ(bytes(), "abc");
  EXPECT_FALSE(ZPIBlock::leaveObject(block));
}

TEST_F(ZPIBlockTest, AnEmptyBlockLeavesItsObjectWithoutMemory) {
  placeInObject("");
  EXPECT_TRUE(ZPIBlock::leaveObject(block));
  EXPECT_EQ(block.storage, nullptr);
  EXPECT_EQ(block.capacity, 0U);
}

TEST_F(ZPIBlockTest, FewBytesGiveALargeBlockBack) {
  const std::string many(8192, 'a');
  placeInMemory(many, many.size());
  EXPECT_FALSE(ZPIBlock::dropFirst(block, 7168));
  EXPECT_TRUE(ZPIBlock::dropFirst(block, 1));
  EXPECT_EQ(block.capacity, 1023U);
  EXPECT_EQ(bytes(), std::string(1023, 'a'));
}

TEST_F(ZPIBlockTest, ATruncationGivesALargeBlockBackToo) {
  const std::string many(8192, 'a');
  placeInMemory(many, many.size());
  EXPECT_FALSE(ZPIBlock::cutAt(block, 1024));
  EXPECT_TRUE(ZPIBlock::cutAt(block, 1023));
  EXPECT_EQ(block.capacity, 1023U);
}

TEST_F(ZPIBlockTest, AnEmptiedBlockIsKeptIfManyBytesAreExpected) {
  const std::string many(8192, 'a');
  placeInMemory(many, many.size());
  EXPECT_FALSE(ZPIBlock::empty(block, 1024));
  EXPECT_EQ(block.capacity, 8192U);
  EXPECT_TRUE(ZPIBlock::empty(block, 1023));
  EXPECT_EQ(block.storage, nullptr);
}

TEST_F(ZPIBlockTest, ASmallBlockIsKeptWhateverItHolds) {
  placeInMemory("abc", 1024);
  EXPECT_FALSE(ZPIBlock::dropFirst(block, 3));
  EXPECT_FALSE(ZPIBlock::empty(block, 0));
  EXPECT_EQ(block.capacity, 1024U);
}

TEST_F(ZPIBlockTest, GrowingWithoutMemoryChangesNothing) {
  for (const bool isInObject : {false, true}) {
    isInObject ? placeInObject("abc") : placeInMemory("abc", 3);
    {
      support::SystemCalls calls;
      calls.failAllocation();
      EXPECT_THROW(ZPIBlock::reserveAtEnd(block, 1000), std::bad_alloc);
    }
    EXPECT_EQ(bytes(), "abc");
    if (!isInObject) std::free(block.storage);
  }
}

TEST_F(ZPIBlockTest, WithoutMemoryForASmallerBlockTheLargeOneStays) {
  placeInMemory(std::string(100'000, 'x') + "abc", 200'000);
  support::SystemCalls calls;
  calls.failAllocation();
  EXPECT_FALSE(ZPIBlock::dropFirst(block, 100'000));
  EXPECT_EQ(bytes(), "abc");
  EXPECT_EQ(block.capacity, 200'000U);
  EXPECT_TRUE(ZPIBlock::dropFirst(block, 1));
  EXPECT_EQ(bytes(), "bc");
}

TEST_F(ZPIBlockTest, ARequestForImpossibleRoomChangesNothing) {
  placeInMemory("abc", 10);
  EXPECT_THROW(ZPIBlock::reserveAtEnd(block, std::numeric_limits<size_t>::max()), std::bad_alloc);
  EXPECT_EQ(block.capacity, 10U);
  EXPECT_EQ(bytes(), "abc");
}

}  // namespace
