#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Data Transformers Internal/ZPIBlockDataTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

const ExpectedFailure kNoResetBlock{
    "zephal-communication", 6, "block transformers created without a reset block cannot be reused",
    "-[ZPIBlockDataTransformer reset:]", "ZPIBlockDataTransformer.cpp"};

void addMark(ZPKMutableData* data) { data->append("!", 1); }

TEST(ZPIBlockDataTransformerTest, TheCallbackEditsTheChunkInPlace) {
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(addMark);
  EXPECT_EQ(passed(*transformer, "a"), "a!");
  EXPECT_EQ(passed(*transformer, ""), "!");
}

TEST(ZPIBlockDataTransformerTest, TheCallbackGetsTheVeryChunkEvenANullOne) {
  std::vector<ZPKMutableData*> seen;
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(
      [&seen](ZPKMutableData* data) { seen.push_back(data); });
  const ZPKMutableDataPtr chunk = chunkOf("a");
  transformer->modifyData(chunk.get());
  transformer->modifyData(nullptr);
  EXPECT_THAT(seen, testing::ElementsAre(chunk.get(), nullptr));
}

TEST(ZPIBlockDataTransformerTest, WithoutAResetBlockResetFailsWithCode6) {
  LogCapture log;
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(addMark);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(transformer->reset(&error));
  expectFailure(error, log, kNoResetBlock);
  EXPECT_EQ(passed(*transformer, "a"), "a!");
}

TEST(ZPIBlockDataTransformerTest, WithoutASlotTheFailedResetStillLogs) {
  LogCapture log;
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(addMark, nullptr);
  EXPECT_FALSE(transformer->reset(nullptr));
  EXPECT_THAT(log.lines(), testing::ElementsAre(LogLine{0, kNoResetBlock.description}));
}

TEST(ZPIBlockDataTransformerTest, ResetReturnsTrueWhateverTheResetBlockDoes) {
  LogCapture log;
  int resets = 0;
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(addMark, [&resets] {
    ++resets;
    ZPKErrorPtr inner;
    ZPIBlockDataTransformer::initWithDataBlock(addMark)->reset(&inner);
  });
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(transformer->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(resets, 1);
  EXPECT_EQ(log.lines().size(), 1U);  // the inner transformer's
}

TEST(ZPIBlockDataTransformerTest, TheCallbacksAreTheTransformersOwnCopies) {
  const auto makeCounter = [count = 0](ZPKMutableData* data) mutable {
    const std::string text = std::to_string(++count);
    data->append(text.data(), text.size());
  };
  ZPIBlockDataTransformer::DataBlock counter = makeCounter;
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(counter);
  counter(chunkOf("").get());
  counter = nullptr;
  EXPECT_EQ(passed(*transformer, ""), "1");
  EXPECT_EQ(passed(*transformer, ""), "2");
}

TEST(ZPIBlockDataTransformerTest, BothCallbacksCanBeReplaced) {
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(addMark);
  transformer->setDataBlock([](ZPKMutableData* data) { data->setLength(0); });
  EXPECT_EQ(passed(*transformer, "a"), "");
  int resets = 0;
  EXPECT_FALSE(transformer->resetBlock());
  transformer->setResetBlock([&resets] { ++resets; });
  EXPECT_TRUE(transformer->reset());
  transformer->resetBlock()();
  EXPECT_EQ(resets, 2);
  const ZPKMutableDataPtr chunk = chunkOf("b");
  transformer->dataBlock()(chunk.get());
  EXPECT_EQ(chunk->length(), 0U);
}

TEST(ZPIBlockDataTransformerTest, AReplacedCallbackIsReleasedAtOnce) {
  const auto captured = std::make_shared<int>(0);
  const auto transformer =
      ZPIBlockDataTransformer::initWithDataBlock([captured](ZPKMutableData*) {});
  passed(*transformer, "a");
  EXPECT_EQ(captured.use_count(), 2);
  transformer->setDataBlock(addMark);
  EXPECT_EQ(captured.use_count(), 1);
}

TEST(ZPIBlockDataTransformerTest, CallbacksCanBeReplacedOnAnotherThreadDuringCalls) {
  const auto transformer = ZPIBlockDataTransformer::initWithDataBlock(addMark);
  std::atomic<bool> stops{false};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    for (; !stops; ++swaps) {
      transformer->setDataBlock([](ZPKMutableData* data) { data->append("?", 1); });
      transformer->setDataBlock(addMark);
    }
  });
  for (int call = 0; call < 1000 || swaps < 100; ++call) {
    EXPECT_THAT(passed(*transformer, "a"), testing::AnyOf("a!", "a?"));
  }
  stops = true;
  swapper.join();
}

}  // namespace
