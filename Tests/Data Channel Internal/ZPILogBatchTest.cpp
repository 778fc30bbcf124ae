#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Data Channel Internal/ZPILogBatch.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;

TEST(ZPILogBatchTest, ANewBatchIsEmpty) {
  const ZPILogBatch batch;
  EXPECT_TRUE(batch.isEmpty());
  EXPECT_THAT(batch.chunks(), ElementsAre());
}

TEST(ZPILogBatchTest, ChunksKeepTheirOrderAndBounds) {
  ZPILogBatch batch;
  batch.add("one");
  batch.add("");
  batch.add(std::string("\n\0three", 7));
  EXPECT_FALSE(batch.isEmpty());
  EXPECT_THAT(batch.chunks(), ElementsAre("one", "", std::string("\n\0three", 7)));
}

TEST(ZPILogBatchTest, AnEmptyChunkIsAChunk) {
  ZPILogBatch batch;
  batch.add("");
  EXPECT_FALSE(batch.isEmpty());
}

TEST(ZPILogBatchTest, AClearedBatchIsEmptyAndKeepsItsMemory) {
  const std::string chunk(1000, 'x');
  ZPILogBatch batch;
  batch.add(chunk);
  batch.clear();
  EXPECT_TRUE(batch.isEmpty());
  const SystemCalls calls;
  batch.add(chunk);
  EXPECT_EQ(calls.allocations(), 0U);
  EXPECT_THAT(batch.chunks(), ElementsAre(chunk));
}

TEST(ZPILogBatchTest, AFreedBatchIsEmptyAndHasNoMemory) {
  const std::string chunk(1000, 'x');
  ZPILogBatch batch;
  batch.add(chunk);
  batch.clearAndFree();
  EXPECT_TRUE(batch.isEmpty());
  const SystemCalls calls;
  batch.add(chunk);
  EXPECT_GT(calls.allocations(), 0U);
}

TEST(ZPILogBatchTest, BatchesCanBeSwapped) {
  ZPILogBatch full;
  full.add("chunk");
  ZPILogBatch empty;
  std::swap(full, empty);
  EXPECT_TRUE(full.isEmpty());
  EXPECT_THAT(empty.chunks(), ElementsAre("chunk"));
}

}  // namespace
