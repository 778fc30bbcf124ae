// Large blocks are not kept for few bytes, and small ones are not given back.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

constexpr size_t kLargeBlock = 65536;  // the size of a read's buffer

// A large block that contains few bytes, such as a short answer in a read's buffer.
ZPKMutableDataPtr sparseBufferOf(std::string_view bytes) {
  void* block = std::malloc(kLargeBlock);
  std::memcpy(block, bytes.data(), bytes.size());
  return ZPKMutableData::dataWithBytesNoCopy(block, bytes.size(), kLargeBlock);
}

TEST(ZPKMutableDataRoomTest, DroppingAlmostAllGivesALargeBlockBack) {
  const ZPKMutableDataPtr buffer = unitOf(std::string(kLargeBlock, 'a') + "rest");
  const uint8_t* const bytes = buffer->bytes();
  buffer->dropFirst(kLargeBlock);
  EXPECT_NE(buffer->bytes(), bytes + kLargeBlock);
  EXPECT_EQ(buffer->view(), "rest");
}

TEST(ZPKMutableDataRoomTest, TruncatingAlmostAllGivesALargeBlockBack) {
  const ZPKMutableDataPtr buffer = unitOf("rest" + std::string(kLargeBlock, 'a'));
  const uint8_t* const bytes = buffer->bytes();
  buffer->setLength(4);
  EXPECT_NE(buffer->bytes(), bytes);
  EXPECT_EQ(buffer->view(), "rest");
}

TEST(ZPKMutableDataRoomTest, EmptyingGivesALargeBlockBack) {
  using Emptying = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<Emptying> ways = {
      [](const ZPKMutableDataPtr& buffer) { buffer->dropFirst(buffer->length()); },
      [](const ZPKMutableDataPtr& buffer) { buffer->setLength(0); },
      [](const ZPKMutableDataPtr& buffer) { buffer->setContents(*ZPKData::data()); },
      [](const ZPKMutableDataPtr& buffer) { buffer->takeFirst(buffer->length()); },
      [](const ZPKMutableDataPtr& buffer) { ZPKMutableData().appendGivingUp(buffer.get()); },
      [](const ZPKMutableDataPtr& buffer) { unitOf("a")->appendGivingUp(buffer.get()); },
  };
  for (const Emptying& empty : ways) {
    const ZPKMutableDataPtr buffer = unitOf(std::string(kLargeBlock, 'a'));
    empty(buffer);
    EXPECT_EQ(buffer->length(), 0U);
    EXPECT_EQ(buffer->bytes(), nullptr);
    append(buffer, "usable again");
    EXPECT_EQ(buffer->view(), "usable again");
  }
}

TEST(ZPKMutableDataRoomTest, ShortNewContentsGiveALargeBlockBack) {
  const ZPKMutableDataPtr buffer = unitOf(std::string(kLargeBlock, 'a'));
  buffer->setContents(*ZPKData::dataWithString("few"));
  EXPECT_EQ(buffer->view(), "few");
  EXPECT_LT(::malloc_usable_size(buffer->mutableBytes()), 1024U);
}

TEST(ZPKMutableDataRoomTest, ALargeBlockIsNotTakenOverForFewBytes) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  const ZPKMutableDataPtr other = sparseBufferOf("few");
  buffer->appendGivingUp(other.get());
  EXPECT_EQ(buffer->view(), "few");
  EXPECT_LT(::malloc_usable_size(buffer->mutableBytes()), 1024U);
  EXPECT_EQ(other->bytes(), nullptr);
}

TEST(ZPKMutableDataRoomTest, AUnitFromALargeBlockDoesNotKeepIt) {
  const ZPKMutableDataPtr buffer = sparseBufferOf("unit;rest");
  const ZPKMutableDataPtr unit = buffer->takeFirst(5);
  EXPECT_EQ(unit->view(), "unit;");
  EXPECT_LT(::malloc_usable_size(unit->mutableBytes()), 1024U);
  EXPECT_EQ(buffer->view(), "rest");
  EXPECT_LT(::malloc_usable_size(buffer->mutableBytes()), 1024U);
}

TEST(ZPKMutableDataRoomTest, ASmallBlockIsKeptForTheNextBytes) {
  const ZPKMutableDataPtr buffer = unitOf(std::string(500, 'a'));
  const uint8_t* const bytes = buffer->bytes();
  buffer->dropFirst(500);
  append(buffer, std::string(500, 'b'));
  EXPECT_EQ(buffer->bytes(), bytes);
  buffer->setLength(0);
  append(buffer, std::string(500, 'c'));
  EXPECT_EQ(buffer->bytes(), bytes);
}

}  // namespace
