#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <thread>

#include "Data Transformers Internal/ZPIPacketAggregatorTransformer.h"
#include "Data Transformers Internal/ZPIPacketSizePrependTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

using testing::ElementsAre;

using namespace std::string_literals;

ZPIPacketAggregatorTransformerPtr withWidth(int32_t width) {
  return ZPIPacketAggregatorTransformer::initWithPacketLengthEncoding(width);
}

std::string held(const ZPIPacketAggregatorTransformer& aggregator) {
  return std::string(aggregator.buffer()->view());
}

std::string packet(int32_t width, std::string_view payload) {
  return passed(*ZPIPacketSizePrependTransformer::initWithPacketLengthEncoding(width), payload);
}

// A reference implementation of modifyData, step by step, for widths of 1 to 8.
class PlainAggregator {
 public:
  explicit PlainAggregator(size_t width) : _width(width) {}

  std::string modifyData(const std::string& chunk) {
    _buffer += chunk;
    if (_expected == 0 && _buffer.size() >= _width) {
      uint64_t word = 0;
      for (size_t i = 0; i < _width; ++i) word = word * 256 + static_cast<uint8_t>(_buffer[i]);
      const uint64_t low = word % (uint64_t{1} << 32);
      const bool isNegative = low >= uint64_t{1} << 31;
      _expected = isNegative ? low + 0xFFFFFFFF00000000 : low;
      _buffer = _buffer.substr(_width);
    }
    if (_expected == 0 || _buffer.size() < _expected) return "";
    const size_t length = static_cast<size_t>(_expected);
    const std::string result = _buffer.substr(0, length);
    _buffer = _buffer.substr(length);
    _expected = 0;
    return result;
  }

  const std::string& buffer() const { return _buffer; }
  uint64_t expected() const { return _expected; }

 private:
  const size_t _width;
  std::string _buffer;
  uint64_t _expected = 0;
};

TEST(ZPIPacketAggregatorTransformerTest, AWholePacketIsReturnedImmediatelyWithoutItsSize) {
  const auto aggregator = withWidth(2);
  EXPECT_EQ(passed(*aggregator, "\0\3abc"s), "abc");
  EXPECT_EQ(held(*aggregator), "");
  EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
}

TEST(ZPIPacketAggregatorTransformerTest, EachWidthReadsWhatThePrependingSideWrites) {
  for (int32_t width = 1; width <= 8; ++width) {
    const std::string payload(width == 1 ? 200 : 70'000 % 65'000, 'x');
    EXPECT_EQ(passed(*withWidth(width), packet(width, payload)), payload) << width;
  }
}

// [\0] [\3] [a] [b] [c]
TEST(ZPIPacketAggregatorTransformerTest, ByteByByteThePayloadComesWithItsLastByte) {
  const auto aggregator = withWidth(2);
  EXPECT_THAT(passedInTurn(*aggregator, {"\0"s, "\3", "a", "b", "c"}),
              ElementsAre("", "", "", "", "abc"));
}

// [\0\2ab\0\1c] split in every possible way.
TEST(ZPIPacketAggregatorTransformerTest, EverySplitOfTheSameBytesGivesTheSamePayloads) {
  for (const Chunks& chunks : everySplit("\0\2ab\0\1c"s)) {
    const auto aggregator = withWidth(2);
    Chunks payloads = passedInTurn(*aggregator, chunks);
    payloads.push_back(passed(*aggregator, ""));
    std::erase(payloads, "");
    EXPECT_THAT(payloads, ElementsAre("ab", "c")) << pictureOf(chunks);
    EXPECT_EQ(held(*aggregator), "");
  }
}

TEST(ZPIPacketAggregatorTransformerTest, TheSecondOfTwoPacketsComesWithTheNextCall) {
  const auto aggregator = withWidth(1);
  EXPECT_EQ(passed(*aggregator, "\2ab\1c"), "ab");
  EXPECT_EQ(held(*aggregator), "\1c");
  EXPECT_EQ(passed(*aggregator, ""), "c");
  EXPECT_EQ(passed(*aggregator, ""), "");
}

TEST(ZPIPacketAggregatorTransformerTest, AHalfPacketWaitsWithItsSizeUnread) {
  const auto aggregator = withWidth(1);
  EXPECT_EQ(passed(*aggregator, "\2ab\4cd"), "ab");
  EXPECT_EQ(held(*aggregator), "\4cd");
  EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
  EXPECT_EQ(passed(*aggregator, ""), "");
  EXPECT_EQ(held(*aggregator), "cd");
  EXPECT_EQ(aggregator->expectedPacketSize(), 4U);
  EXPECT_EQ(passed(*aggregator, "ef"), "cdef");
}

TEST(ZPIPacketAggregatorTransformerTest, ASizeWithBit31SetStallsUntilReset) {
  LogCapture log;
  const auto aggregator = withWidth(4);
  EXPECT_EQ(passed(*aggregator, "\x80\0\0\0"s), "");
  EXPECT_EQ(aggregator->expectedPacketSize(), 0xFFFFFFFF80000000U);
  EXPECT_EQ(passed(*aggregator, std::string(100'000, 'x')), "");
  EXPECT_EQ(held(*aggregator).size(), 100'000U);
  EXPECT_TRUE(aggregator->reset());
  EXPECT_EQ(passed(*aggregator, "\0\0\0\1a"s), "a");
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST(ZPIPacketAggregatorTransformerTest, SizesWiderThanFourBytesLoseTheirHigherBytes) {
  EXPECT_EQ(passed(*withWidth(8), "\0\0\0\1\0\0\0\5abcdefg"s), "abcde");
  EXPECT_EQ(passed(*withWidth(5), "\x7F\0\0\0\2abc"s), "ab");
}

TEST(ZPIPacketAggregatorTransformerTest, ASizeOfTwoToThe32ReadsAsZero) {
  const auto aggregator = withWidth(5);
  EXPECT_EQ(passed(*aggregator, "\1\0\0\0\0\0\0\0\0\1a"s), "");
  EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
  EXPECT_EQ(passed(*aggregator, ""), "a");
}

TEST(ZPIPacketAggregatorTransformerTest, AnEmptyPacketTakesUpOneCall) {
  const auto aggregator = withWidth(1);
  EXPECT_EQ(passed(*aggregator, "\0\3abc"s), "");
  EXPECT_EQ(held(*aggregator), "\3abc");
  EXPECT_EQ(passed(*aggregator, ""), "abc");
}

TEST(ZPIPacketAggregatorTransformerTest, AResetWithinAPayloadExpectsASizeNext) {
  const auto aggregator = withWidth(1);
  EXPECT_EQ(passed(*aggregator, "\5ab"), "");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(aggregator->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
  EXPECT_EQ(passed(*aggregator, "\2cd"), "cd");
}

TEST(ZPIPacketAggregatorTransformerTest, ResetReplacesBothBuffersAndKeepsTheRest) {
  const auto aggregator = withWidth(1);
  const ZPKMutableDataPtr buffer = aggregator->buffer();
  const ZPKMutableDataPtr readResults = aggregator->readResults();
  aggregator->setPacketSeparator(dataOf("|"));
  passed(*aggregator, "\5ab");
  aggregator->reset();
  EXPECT_NE(aggregator->buffer(), buffer);
  EXPECT_EQ(buffer->view(), "ab");
  EXPECT_EQ(held(*aggregator), "");
  EXPECT_NE(aggregator->readResults(), readResults);
  EXPECT_EQ(aggregator->readResults()->length(), 0U);
  EXPECT_EQ(aggregator->packetLengthEncoding(), 1);
  EXPECT_EQ(aggregator->packetSeparator()->view(), "|");
}

TEST(ZPIPacketAggregatorTransformerTest, ANewWidthAppliesFromTheNextSizeFieldOn) {
  const auto aggregator = withWidth(1);
  EXPECT_EQ(passed(*aggregator, "\3a"), "");
  aggregator->setPacketLengthEncoding(2);
  EXPECT_EQ(passed(*aggregator, "bc\0\1d"s), "abc");
  EXPECT_EQ(passed(*aggregator, ""), "d");
}

TEST(ZPIPacketAggregatorTransformerTest, AWidthOutsideOneToEightHoldsEverything) {
  for (const int32_t width : {0, -1, -8, std::numeric_limits<int32_t>::min(), 9, 16,
                              std::numeric_limits<int32_t>::max()}) {
    const auto aggregator = withWidth(width);
    EXPECT_EQ(aggregator->packetLengthEncoding(), width);
    const std::string bytes = "\0\0\0\0\0\0\0\0\1abcdefghijklmnop"s;
    EXPECT_EQ(passed(*aggregator, bytes), "") << width;
    EXPECT_EQ(passed(*aggregator, ""), "") << width;
    EXPECT_EQ(held(*aggregator), bytes) << width;
    EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
  }
}

TEST(ZPIPacketAggregatorTransformerTest, AWidthAboveEightStillCompletesAPayloadInProgress) {
  const auto aggregator = withWidth(1);
  passed(*aggregator, "\3a");
  aggregator->setPacketLengthEncoding(9);
  EXPECT_EQ(passed(*aggregator, "bc" + std::string(20, '\1')), "abc");
  EXPECT_EQ(passed(*aggregator, ""), "");
  EXPECT_EQ(held(*aggregator), std::string(20, '\1'));
}

TEST(ZPIPacketAggregatorTransformerTest, BothBuffersStartEmptyAndTheSeparatorStartsNull) {
  const auto aggregator = withWidth(4);
  EXPECT_EQ(aggregator->packetLengthEncoding(), 4);
  EXPECT_EQ(aggregator->buffer()->length(), 0U);
  EXPECT_EQ(aggregator->readResults()->length(), 0U);
  EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
  EXPECT_EQ(aggregator->packetSeparator(), nullptr);
}

TEST(ZPIPacketAggregatorTransformerTest, TheFramingUsesTheGivenBufferAndSize) {
  const auto aggregator = withWidth(1);
  const ZPKMutableDataPtr buffer = chunkOf("ab");
  aggregator->setBuffer(buffer);
  aggregator->setExpectedPacketSize(3);
  EXPECT_EQ(passed(*aggregator, "cd"), "abc");
  EXPECT_EQ(buffer->view(), "d");
}

TEST(ZPIPacketAggregatorTransformerTest, TheSeparatorAndReadResultsDoNotAffectTheFraming) {
  const auto aggregator = withWidth(1);
  const ZPKMutableDataPtr readResults = chunkOf("old");
  aggregator->setReadResults(readResults);
  aggregator->setPacketSeparator(dataOf("a"));
  EXPECT_EQ(passed(*aggregator, "\2ab\1c"), "ab");
  EXPECT_EQ(aggregator->readResults(), readResults);
  EXPECT_EQ(readResults->view(), "old");
}

TEST(ZPIPacketAggregatorTransformerTest, WithoutABufferChunksAreSwallowed) {
  const auto aggregator = withWidth(1);
  aggregator->setBuffer(nullptr);
  EXPECT_EQ(passed(*aggregator, "\1a"), "");
  EXPECT_EQ(aggregator->expectedPacketSize(), 0U);
}

TEST(ZPIPacketAggregatorTransformerTest, ANullChunkChangesNothing) {
  const auto aggregator = withWidth(1);
  passed(*aggregator, "\1a\1b");
  aggregator->modifyData(nullptr);
  EXPECT_EQ(held(*aggregator), "\1b");
}

TEST(ZPIPacketAggregatorTransformerTest, EveryCallMatchesTheReferenceImplementation) {
  std::mt19937 random(32);
  for (size_t round = 0; round < 300; ++round) {
    const size_t width = 1 + round % 8;
    const auto aggregator = withWidth(static_cast<int32_t>(width));
    PlainAggregator plain(width);
    for (int call = 0; call < 40; ++call) {
      const std::string chunk = randomText(random, "\0\0\0\0\0\1\2\3\x80"s, 8);
      ASSERT_EQ(passed(*aggregator, chunk), plain.modifyData(chunk)) << "width " << width;
      ASSERT_EQ(held(*aggregator), plain.buffer());
      ASSERT_EQ(aggregator->expectedPacketSize(), plain.expected());
    }
  }
}

TEST(ZPIPacketAggregatorTransformerTest, TheAccessorsCanBeUsedOnAnotherThreadDuringCalls) {
  const auto aggregator = withWidth(1);
  std::atomic<bool> stops{false};
  std::atomic<int> rounds{0};
  std::thread other([&] {
    for (; !stops; ++rounds) {
      aggregator->setPacketLengthEncoding(aggregator->packetLengthEncoding());
      aggregator->setPacketSeparator(aggregator->packetSeparator());
      aggregator->setReadResults(aggregator->readResults());
      EXPECT_NE(aggregator->buffer(), nullptr);
      EXPECT_LE(aggregator->expectedPacketSize(), 2U);
    }
  });
  for (int call = 0; call < 1000 || rounds < 100; ++call) {
    EXPECT_THAT(passedInTurn(*aggregator, {"\2a", "b"}), ElementsAre("", "ab"));
  }
  stops = true;
  other.join();
}

TEST(ReadExpectedSizeAndSwapTest, ReturnsTheLow32BitsOfTheFieldAsSigned) {
  EXPECT_EQ(readExpectedSizeAndSwap(*dataOf("\1\2\3"), 2), 0x0102);
  EXPECT_EQ(readExpectedSizeAndSwap(*dataOf("\xFF\xFF\xFF\xFF"), 4), -1);
  EXPECT_EQ(readExpectedSizeAndSwap(*dataOf("\1\0\0\0\0\0\0\7"s), 8), 7);
  EXPECT_EQ(readExpectedSizeAndSwap(*dataOf(""), 0), 0);
}

TEST(ReadExpectedSizeAndSwapDeathTest, AnIncompleteFieldEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(readExpectedSizeAndSwap(*dataOf("\1"), 2), testing::KilledBySignal(SIGABRT),
              "ZPIPacketAggregatorTransformer\\.cpp:readExpectedSizeAndSwap:.*"
              "\\[dataIn length\\] >= sizeAllocated");
}

TEST(TruncateFirstNBytesTest, DropsTheBytes) {
  const ZPKMutableDataPtr data = chunkOf("abc");
  truncateFirstNBytes(*data, 2);
  EXPECT_EQ(data->view(), "c");
  truncateFirstNBytes(*data, 1);
  EXPECT_EQ(data->view(), "");
  truncateFirstNBytes(*data, 0);
}

TEST(TruncateFirstNBytesDeathTest, DroppingMoreBytesThanThereAreEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(truncateFirstNBytes(*chunkOf("abc"), 4), testing::KilledBySignal(SIGABRT),
              "ZPIPacketAggregatorTransformer\\.cpp:truncateFirstNBytes:.*"
              "\\[dataIn length\\] >= n");
}

}  // namespace
