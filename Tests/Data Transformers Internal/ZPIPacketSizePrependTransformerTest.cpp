#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "Data Transformers Internal/ZPIPacketSizePrependTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

ZPIPacketSizePrependTransformerPtr withWidth(int32_t width) {
  return ZPIPacketSizePrependTransformer::initWithPacketLengthEncoding(width);
}

std::string field(std::initializer_list<int> bytes) {
  std::string text;
  for (const int byte : bytes) text.push_back(static_cast<char>(byte));
  return text;
}

TEST(ZPIPacketSizePrependTransformerTest, TheSizeIsBigEndianAndCountsOnlyTheChunk) {
  EXPECT_EQ(passed(*withWidth(2), "\xAA\xBB\xCC"), field({0, 3, 0xAA, 0xBB, 0xCC}));
  EXPECT_EQ(passed(*withWidth(4), "\xAA\xBB\xCC"), field({0, 0, 0, 3, 0xAA, 0xBB, 0xCC}));
}

TEST(ZPIPacketSizePrependTransformerTest, ASizeUsesAllBytesOfItsField) {
  const std::string chunk(0x012345, 'x');
  EXPECT_EQ(passed(*withWidth(3), chunk), field({0x01, 0x23, 0x45}) + chunk);
  EXPECT_EQ(passed(*withWidth(5), chunk), field({0, 0, 0x01, 0x23, 0x45}) + chunk);
}

TEST(ZPIPacketSizePrependTransformerTest, OneByteFrames255BytesAndLets256ThroughUnframed) {
  LogCapture log;
  const std::string fits(255, 'x');
  const std::string tooLong(256, 'x');
  EXPECT_EQ(passed(*withWidth(1), fits), field({0xFF}) + fits);
  EXPECT_EQ(passed(*withWidth(1), tooLong), tooLong);
  EXPECT_THAT(log.lines(), testing::ElementsAre());
}

TEST(ZPIPacketSizePrependTransformerTest, TwoAndThreeBytesFrameTheirLargestSizes) {
  for (const int32_t width : {2, 3}) {
    const std::string fits((size_t{1} << (8 * width)) - 1, 'x');
    EXPECT_EQ(passed(*withWidth(width), fits),
              std::string(static_cast<size_t>(width), '\xFF') + fits);
    EXPECT_EQ(passed(*withWidth(width), fits + "x"), fits + "x");
  }
}

TEST(ZPIPacketSizePrependTransformerTest, EightBytesAlwaysFrame) {
  EXPECT_EQ(passed(*withWidth(8), "abc"), field({0, 0, 0, 0, 0, 0, 0, 3}) + "abc");
  const std::string chunk(70'000, 'x');
  EXPECT_EQ(passed(*withWidth(8), chunk), field({0, 0, 0, 0, 0, 1, 0x11, 0x70}) + chunk);
}

TEST(ZPIPacketSizePrependTransformerTest, AnEmptyChunkBecomesItsSizeField) {
  for (int32_t width = 1; width <= 8; ++width) {
    EXPECT_EQ(passed(*withWidth(width), ""), std::string(static_cast<size_t>(width), '\0'));
  }
}

TEST(ZPIPacketSizePrependTransformerTest, AWidthOutsideOneToEightChangesNothing) {
  for (const int32_t width : {0, -1, -8, -9, std::numeric_limits<int32_t>::min(), 9, 16, 64,
                              std::numeric_limits<int32_t>::max()}) {
    EXPECT_EQ(passed(*withWidth(width), ""), "") << width;
    EXPECT_EQ(passed(*withWidth(width), "abc"), "abc") << width;
  }
}

TEST(ZPIPacketSizePrependTransformerTest, ANewWidthAppliesFromTheNextChunkOn) {
  const auto transformer = withWidth(1);
  EXPECT_EQ(transformer->packetLengthEncoding(), 1);
  EXPECT_EQ(passed(*transformer, "a"), field({1, 'a'}));
  transformer->setPacketLengthEncoding(2);
  EXPECT_EQ(transformer->packetLengthEncoding(), 2);
  EXPECT_EQ(passed(*transformer, "a"), field({0, 1, 'a'}));
}

TEST(ZPIPacketSizePrependTransformerTest, TheChunkStaysTheSameObject) {
  const ZPKMutableDataPtr chunk = chunkOf("a");
  const ZPKMutableDataPtr seenByAnother = chunk;
  withWidth(1)->modifyData(chunk.get());
  EXPECT_EQ(seenByAnother->view(), field({1, 'a'}));
}

TEST(ZPIPacketSizePrependTransformerTest, ANullChunkIsLeftAlone) {
  withWidth(1)->modifyData(nullptr);
}

TEST(ZPIPacketSizePrependTransformerTest, ResetKeepsTheWidthAndTheSlot) {
  const auto transformer = withWidth(1);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(transformer->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(passed(*transformer, "a"), field({1, 'a'}));
}

}  // namespace
