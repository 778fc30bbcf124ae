#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Data Transformers/ZPKMutableDataAppendingTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

ZPKMutableDataAppendingTransformerPtr appending(std::string_view bytes) {
  return ZPKMutableDataAppendingTransformer::initWithDataToAppend(dataOf(bytes));
}

TEST(ZPKMutableDataAppendingTransformerTest, TheBytesComeAfterTheChunk) {
  EXPECT_EQ(passed(*appending("\r\n"), "version"), "version\r\n");
}

TEST(ZPKMutableDataAppendingTransformerTest, AnEmptyChunkBecomesJustTheBytes) {
  EXPECT_EQ(passed(*appending("\n"), ""), "\n");
}

TEST(ZPKMutableDataAppendingTransformerTest, ANullChunkIsLeftAlone) {
  const auto appender = appending("\n");
  appender->modifyData(nullptr);
  EXPECT_EQ(passed(*appender, "a"), "a\n");
}

TEST(ZPKMutableDataAppendingTransformerTest, NullAndEmptyBytesAppendNothing) {
  const auto appender = ZPKMutableDataAppendingTransformer::initWithDataToAppend(nullptr);
  EXPECT_EQ(appender->dataToAppend(), nullptr);
  EXPECT_EQ(passed(*appender, "a"), "a");
  appender->setDataToAppend(ZPKData::data());
  EXPECT_EQ(passed(*appender, "a"), "a");
}

TEST(ZPKMutableDataAppendingTransformerTest, TheFirstBytesAreCopiedButLaterOnesAreNot) {
  const ZPKMutableDataPtr bytes = chunkOf("\n");
  const auto appender = ZPKMutableDataAppendingTransformer::initWithDataToAppend(bytes);
  bytes->setContents(*dataOf("\r"));
  EXPECT_EQ(passed(*appender, "a"), "a\n");
  appender->setDataToAppend(bytes);
  EXPECT_EQ(appender->dataToAppend(), bytes);
  bytes->setContents(*dataOf("!"));
  EXPECT_EQ(passed(*appender, "a"), "a!");
}

TEST(ZPKMutableDataAppendingTransformerTest, AChunkCanBeAppendedToItself) {
  const ZPKMutableDataPtr bytes = chunkOf("ab");
  const auto appender = appending("");
  appender->setDataToAppend(bytes);
  appender->modifyData(bytes.get());
  EXPECT_EQ(bytes->view(), "abab");
}

TEST(ZPKMutableDataAppendingTransformerTest, ResetKeepsTheBytesAndTheSlot) {
  const auto appender = appending("\n");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(appender->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(passed(*appender, "a"), "a\n");
}

TEST(ZPKMutableDataAppendingTransformerTest, TheBytesCanBeSwappedOnAnotherThreadDuringCalls) {
  const auto appender = appending("\r\n");
  std::atomic<bool> stops{false};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    for (; !stops; ++swaps) appender->setDataToAppend(swaps % 2 == 0 ? nullptr : dataOf("\r\n"));
  });
  for (int call = 0; call < 2000 || swaps < 100; ++call) {
    EXPECT_THAT(passed(*appender, "a"), testing::AnyOf("a", "a\r\n"));
  }
  stops = true;
  swapper.join();
}

}  // namespace
