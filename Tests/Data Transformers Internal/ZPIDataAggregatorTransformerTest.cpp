#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Transformers Internal/ZPIDataAggregatorTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

using testing::ElementsAre;

ZPIDataAggregatorTransformerPtr keeping(std::string_view terminator) {
  return ZPIDataAggregatorTransformer::initWithTerminator(dataOf(terminator), false);
}

ZPIDataAggregatorTransformerPtr removing(std::string_view terminator) {
  return ZPIDataAggregatorTransformer::initWithTerminator(dataOf(terminator), true);
}

std::string held(const ZPIDataAggregatorTransformer& aggregator) {
  return std::string(aggregator.buffer()->view());
}

// A reference implementation of modifyData, step by step.
std::string plainModifyData(std::string& buffer, const std::string& terminator,
                            bool removeTerminator, const std::string& chunk) {
  buffer += chunk;
  const size_t p = buffer.find(terminator);
  if (p == std::string::npos) return "";
  const size_t end = p + terminator.size();
  const std::string result = buffer.substr(0, removeTerminator ? p : end);
  buffer = buffer.substr(end);
  return result;
}

TEST(ZPIDataAggregatorTransformerTest, TheTerminatorStaysInTheResultOrIsCutOff) {
  EXPECT_EQ(passed(*keeping("> "), "line> "), "line> ");
  EXPECT_EQ(passed(*removing("> "), "line> "), "line");
}

// [A;B;C] [] []
TEST(ZPIDataAggregatorTransformerTest, OneCallReturnsOneUnitAndEmptyChunksTheRest) {
  const auto aggregator = removing(";");
  EXPECT_EQ(passed(*aggregator, "A;B;C"), "A");
  EXPECT_EQ(held(*aggregator), "B;C");
  EXPECT_EQ(passed(*aggregator, ""), "B");
  EXPECT_EQ(held(*aggregator), "C");
  EXPECT_EQ(passed(*aggregator, ""), "");
  EXPECT_EQ(held(*aggregator), "C");
}

// [ab\r\ncd\r\n] split in every possible way: [ab\r][\ncd\r\n], [a][b][\r]... and so on.
TEST(ZPIDataAggregatorTransformerTest, EverySplitOfTheSameBytesGivesTheSameUnits) {
  for (const Chunks& chunks : everySplit("ab\r\ncd\r\n")) {
    for (const bool removes : {false, true}) {
      const auto aggregator =
          ZPIDataAggregatorTransformer::initWithTerminator(dataOf("\r\n"), removes);
      Chunks units = passedInTurn(*aggregator, chunks);
      units.push_back(passed(*aggregator, ""));
      std::erase(units, "");
      EXPECT_THAT(units, removes ? ElementsAre("ab", "cd") : ElementsAre("ab\r\n", "cd\r\n"))
          << pictureOf(chunks);
      EXPECT_EQ(held(*aggregator), "");
    }
  }
}

TEST(ZPIDataAggregatorTransformerTest, AnEmptyUnitWithoutItsTerminatorLooksLikeNoUnit) {
  const auto aggregator = removing("\n");
  EXPECT_EQ(passed(*aggregator, "\nnext\n"), "");
  EXPECT_EQ(held(*aggregator), "next\n");
  EXPECT_EQ(passed(*aggregator, ""), "next");
}

TEST(ZPIDataAggregatorTransformerTest, TheFirstOccurrenceSplitsAndNotTheLast) {
  const auto aggregator = keeping("aa");
  EXPECT_EQ(passed(*aggregator, "baaa"), "baa");
  EXPECT_EQ(held(*aggregator), "a");
}

TEST(ZPIDataAggregatorTransformerTest, ANullChunkChangesNothingEvenWithAUnitHeld) {
  const auto aggregator = keeping(";");
  passed(*aggregator, "A;B;");
  aggregator->modifyData(nullptr);
  EXPECT_EQ(held(*aggregator), "B;");
}

TEST(ZPIDataAggregatorTransformerTest, AnEmptyChunkOnAnEmptyBufferChangesNothing) {
  const auto aggregator = keeping(";");
  EXPECT_EQ(passed(*aggregator, ""), "");
  EXPECT_EQ(held(*aggregator), "");
}

TEST(ZPIDataAggregatorTransformerTest, ANullOrEmptyTerminatorIsNeverFound) {
  for (const ZPKDataPtr& none : {ZPKDataPtr(), ZPKData::data()}) {
    const auto aggregator = ZPIDataAggregatorTransformer::initWithTerminator(none, false);
    EXPECT_EQ(passed(*aggregator, "abc"), "");
    EXPECT_EQ(held(*aggregator), "abc");
  }
}

TEST(ZPIDataAggregatorTransformerTest, TheTerminatorIsCopied) {
  const ZPKMutableDataPtr terminator = chunkOf(";");
  const auto aggregator = ZPIDataAggregatorTransformer::initWithTerminator(terminator, true);
  terminator->setContents(*dataOf(","));
  EXPECT_EQ(aggregator->data2Find()->view(), ";");
  EXPECT_TRUE(aggregator->removeTerminator());
  EXPECT_EQ(passed(*aggregator, "a,b;"), "a,b");
}

TEST(ZPIDataAggregatorTransformerTest, ResetReplacesTheBufferWithAnEmptyOne) {
  const auto aggregator = keeping(";");
  const ZPKMutableDataPtr before = aggregator->buffer();
  passed(*aggregator, "old");
  EXPECT_EQ(aggregator->buffer(), before);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(aggregator->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_NE(aggregator->buffer(), before);
  EXPECT_EQ(before->view(), "old");
  EXPECT_EQ(held(*aggregator), "");
  EXPECT_EQ(passed(*aggregator, "new;"), "new;");
}

TEST(ZPIDataAggregatorTransformerTest, TheResultAndTheBufferShareNoBytes) {
  const auto aggregator = keeping(";");
  const ZPKMutableDataPtr chunk = chunkOf("a;bc");
  aggregator->modifyData(chunk.get());
  chunk->append("xxxx", 4);
  EXPECT_EQ(held(*aggregator), "bc");
  aggregator->buffer()->append(";", 1);
  EXPECT_EQ(chunk->view(), "a;xxxx");
}

TEST(ZPIDataAggregatorTransformerTest, EveryCallMatchesTheReferenceImplementation) {
  std::mt19937 random(31);
  for (int round = 0; round < 300; ++round) {
    const std::string terminator = "a" + randomText(random, "ab", 2);
    const bool removes = round % 2 == 0;
    const auto aggregator =
        ZPIDataAggregatorTransformer::initWithTerminator(dataOf(terminator), removes);
    std::string plainBuffer;
    for (int call = 0; call < 40; ++call) {
      const std::string chunk = randomText(random, "abc", call % 10 == 0 ? 200 : 7);
      ASSERT_EQ(passed(*aggregator, chunk),
                plainModifyData(plainBuffer, terminator, removes, chunk))
          << "terminator " << terminator << " chunk " << chunk;
      ASSERT_EQ(held(*aggregator), plainBuffer);
    }
  }
}

}  // namespace
