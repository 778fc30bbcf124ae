#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Data Channel Internal/ZPILogBatch.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;

// Adds a chunk of just this text.
void add(ZPILogBatch* batch, std::string_view chunk) { batch->add({chunk}, ""); }

std::vector<std::string> chunksOf(const ZPILogBatch& batch) {
  std::vector<std::string> chunks;
  size_t start = 0;
  for (const size_t end : batch.ends()) {
    chunks.emplace_back(batch.text().substr(start, end - start));
    start = end;
  }
  EXPECT_EQ(batch.text().size(), start);
  return chunks;
}

TEST(ZPILogBatchTest, ANewBatchIsEmpty) {
  const ZPILogBatch batch;
  EXPECT_TRUE(batch.isEmpty());
  EXPECT_THAT(chunksOf(batch), ElementsAre());
}

TEST(ZPILogBatchTest, ChunksKeepTheirOrderAndBounds) {
  ZPILogBatch batch;
  add(&batch, "one");
  add(&batch, "");
  add(&batch, std::string("\n\0three", 7));
  EXPECT_FALSE(batch.isEmpty());
  EXPECT_THAT(chunksOf(batch), ElementsAre("one", "", std::string("\n\0three", 7)));
}

TEST(ZPILogBatchTest, AnEmptyChunkIsAChunk) {
  ZPILogBatch batch;
  add(&batch, "");
  EXPECT_FALSE(batch.isEmpty());
}

TEST(ZPILogBatchTest, AClearedBatchIsEmptyAndKeepsItsMemory) {
  const std::string chunk(1000, 'x');
  ZPILogBatch batch;
  add(&batch, chunk);
  batch.clear();
  EXPECT_TRUE(batch.isEmpty());
  const SystemCalls calls;
  add(&batch, chunk);
  EXPECT_EQ(calls.allocations(), 0U);
  EXPECT_THAT(chunksOf(batch), ElementsAre(chunk));
}

TEST(ZPILogBatchTest, AFreedBatchIsEmptyAndHasNoMemory) {
  const std::string chunk(1000, 'x');
  ZPILogBatch batch;
  add(&batch, chunk);
  batch.clearAndFree();
  EXPECT_TRUE(batch.isEmpty());
  const SystemCalls calls;
  add(&batch, chunk);
  EXPECT_GT(calls.allocations(), 0U);
}

TEST(ZPILogBatchTest, AChunkIsFormattedWhereItLies) {
  ZPILogBatch batch;
  batch.add({"\ntime ", "id", ": "}, "one\r\ntwo");
  batch.add({"\n", "", "|"}, "three");
  EXPECT_THAT(chunksOf(batch), ElementsAre("\ntime id: one\ntime id: two", "\n|three"));
}

TEST(ZPILogBatchTest, ABatchOfShortChunksTakesFewAllocations) {
  ZPILogBatch batch;
  const SystemCalls calls;
  for (int i = 0; i < 16; ++i) batch.add({"\n2024-05-01 12:00:00.250 <pre--write>[4711]: "}, "ver");
  EXPECT_EQ(calls.allocations(), 2U);
}

// Returns whether there was memory for the chunk.
bool addWithFailingAllocation(ZPILogBatch* batch, std::string_view prefix, std::string_view text,
                              size_t failing) {
  SystemCalls calls;
  calls.failAllocation(failing);
  try {
    batch->add({prefix}, text);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

TEST(ZPILogBatchTest, WithoutMemoryNoPartOfAChunkIsAdded) {
  const std::string text(3000, '\n');
  size_t failures = 0;
  for (size_t failing = 0; failing < 4; ++failing) {
    ZPILogBatch batch;
    std::vector<std::string> expected;
    for (const std::string_view prefix : {"<1>", "<2>", "<3>", "<4>", "<5>", "<6>"}) {
      if (!addWithFailingAllocation(&batch, prefix, text, failing)) {
        ++failures;
        batch.add({prefix}, "again");
        expected.push_back(std::string(prefix) + "again");
      } else {
        expected.emplace_back();
        for (size_t line = 0; line <= text.size(); ++line) expected.back() += prefix;
      }
    }
    EXPECT_EQ(chunksOf(batch), expected) << failing;
  }
  EXPECT_GE(failures, 4U);
}

TEST(ZPILogBatchTest, BatchesCanBeSwapped) {
  ZPILogBatch full;
  add(&full, "chunk");
  ZPILogBatch empty;
  full.swap(empty);
  EXPECT_TRUE(full.isEmpty());
  EXPECT_THAT(chunksOf(empty), ElementsAre("chunk"));
}

}  // namespace
