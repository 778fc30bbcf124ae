#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "Support/Bytes.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPIRoom.h"

using namespace support;

namespace {

// Adds bytes as a system call would that was given room for `size` of them.
void add(const ZPKMutableDataPtr& data, std::string_view bytes, size_t size) {
  ZPIRoom room(data.get(), size);
  std::memcpy(room.bytes(), bytes.data(), bytes.size());
  room.fill(bytes.size());
}

TEST(ZPIRoomTest, WhatFillsItIsAddedToTheBuffer) {
  for (const ZPKMutableDataPtr& data : {unitOf("rest"), chunkOf("rest"), unitOf("")}) {
    const std::string before(data->view());
    add(data, "more", 4);
    EXPECT_EQ(data->view(), before + "more");
    add(data, "more", 100'000);
    EXPECT_EQ(data->view(), before + "moremore");
  }
}

TEST(ZPIRoomTest, WhatIsNotFilledIsNotAdded) {
  const ZPKMutableDataPtr data = unitOf("rest");
  add(data, "", 100);
  EXPECT_EQ(data->view(), "rest");
}

TEST(ZPIRoomTest, MuchTooLargeARoomIsFreed) {
  const ZPKMutableDataPtr data = chunkOf("rest");
  const uint8_t* large = nullptr;
  {
    const ZPIRoom room(data.get(), 100'000);
    large = data->bytes();
  }
  EXPECT_NE(data->bytes(), large);
  EXPECT_EQ(data->view(), "rest");
}

TEST(ZPIRoomTest, AFilledRoomIsNotCopied) {
  const ZPKMutableDataPtr data = chunkOf("rest");
  const std::string many(100'000, 'x');
  const uint8_t* bytes = nullptr;
  {
    ZPIRoom room(data.get(), many.size());
    std::memcpy(room.bytes(), many.data(), many.size());
    room.fill(many.size());
    bytes = data->bytes();
  }
  EXPECT_EQ(data->bytes(), bytes);
  EXPECT_EQ(data->view(), "rest" + many);
}

TEST(ZPIRoomTest, WithoutMemoryThereIsNoneAndTheBufferStays) {
  const ZPKMutableDataPtr data = chunkOf("rest");
  {
    SystemCalls calls;
    calls.failAllocation();
    const ZPIRoom room(data.get(), 100'000);
    EXPECT_EQ(room.bytes(), nullptr);
  }
  EXPECT_EQ(data->view(), "rest");
}

TEST(ZPIRoomTest, ASearchGoesOnIntoTheNewBytes) {
  const ZPKMutableDataPtr data = chunkOf("abc=");
  EXPECT_EQ(data->resumeFind(*dataOf("=>")).location, ZPKNotFound);
  add(data, "> ", 2);
  EXPECT_EQ(data->resumeFind(*dataOf("=>")).location, 3U);
}

// A pointer from mutableBytes is valid until the bytes move.
TEST(ZPIRoomTest, BytesThatACallerChangesAreSearchedAgain) {
  const ZPKMutableDataPtr data = chunkOf("abc");
  uint8_t* const bytes = data->mutableBytes();
  { const ZPIRoom room(data.get(), 0); }
  EXPECT_EQ(data->resumeFind(*dataOf("=>")).location, ZPKNotFound);
  std::memcpy(bytes, "=>c", 3);
  EXPECT_EQ(data->resumeFind(*dataOf("=>")).location, 0U);
}

}  // namespace
