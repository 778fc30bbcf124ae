#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Data Transformers Internal/ZPITakeHeldUnit.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

using testing::ElementsAre;

ZPKMutableDataAggregatorTransformerPtr splittingAt(std::string_view terminator) {
  return ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(terminator));
}

std::string held(const ZPKMutableDataAggregatorTransformer& aggregator) {
  return std::string(aggregator.buffer()->view());
}

// A reference implementation of modifyData, step by step and without regard to speed.
class PlainAggregator {
 public:
  void setTerminator(std::optional<std::string> terminator) { _terminator = std::move(terminator); }

  std::string modifyData(const std::string& chunk) {
    _buffer += chunk;
    if (_terminator.value_or("").empty()) return std::exchange(_buffer, "");
    const size_t p = _buffer.find(*_terminator);
    if (p == std::string::npos) return "";
    const size_t end = p + _terminator->size();
    const std::string result = _buffer.substr(0, end);
    _buffer = _buffer.substr(end);
    return result;
  }

  void reset() { _buffer.clear(); }
  const std::string& buffer() const { return _buffer; }

 private:
  std::string _buffer;
  std::optional<std::string> _terminator;
};

TEST(ZPKMutableDataAggregatorTransformerTest, AChunkThatEndsInTheTerminatorPassesWhole) {
  const auto aggregator = splittingAt("> ");
  EXPECT_EQ(passed(*aggregator, "version\n> "), "version\n> ");
  EXPECT_EQ(held(*aggregator), "");
}

TEST(ZPKMutableDataAggregatorTransformerTest, ATerminatorWrittenIntoItsBufferEndsAUnit) {
  const auto aggregator = splittingAt(";");
  EXPECT_EQ(passed(*aggregator, "abc"), "");
  uint8_t* const pointer = aggregator->buffer()->mutableBytes();
  EXPECT_EQ(passed(*aggregator, ""), "");
  pointer[1] = ';';
  EXPECT_EQ(passed(*aggregator, ""), "a;");
  EXPECT_EQ(held(*aggregator), "c");
}

// [A;B;C] [] []
TEST(ZPKMutableDataAggregatorTransformerTest, OneCallReturnsOneUnitAndEmptyChunksTheRest) {
  const auto aggregator = splittingAt(";");
  EXPECT_EQ(passed(*aggregator, "A;B;C"), "A;");
  EXPECT_EQ(held(*aggregator), "B;C");
  EXPECT_EQ(passed(*aggregator, ""), "B;");
  EXPECT_EQ(held(*aggregator), "C");
  EXPECT_EQ(passed(*aggregator, ""), "");
  EXPECT_EQ(held(*aggregator), "C");
}

// [line\r] [\nrest]
TEST(ZPKMutableDataAggregatorTransformerTest, ATerminatorSplitAcrossTwoChunksIsFound) {
  const auto aggregator = splittingAt("\r\n");
  EXPECT_EQ(passed(*aggregator, "line\r"), "");
  EXPECT_EQ(passed(*aggregator, "\nrest"), "line\r\n");
  EXPECT_EQ(held(*aggregator), "rest");
}

// [ab=> cd=> ] split in every possible way: [a][b][=]..., [ab=][> cd=> ] and so on.
TEST(ZPKMutableDataAggregatorTransformerTest, EverySplitOfTheSameBytesGivesTheSameUnits) {
  for (const Chunks& chunks : everySplit("ab=> cd=> ")) {
    const auto aggregator = splittingAt("=> ");
    Chunks units = passedInTurn(*aggregator, chunks);
    units.push_back(passed(*aggregator, ""));
    std::erase(units, "");
    EXPECT_THAT(units, ElementsAre("ab=> ", "cd=> ")) << pictureOf(chunks);
    EXPECT_EQ(held(*aggregator), "");
  }
}

TEST(ZPKMutableDataAggregatorTransformerTest, AnEmptyChunkOnAnEmptyBufferChangesNothing) {
  const auto aggregator = splittingAt(";");
  EXPECT_EQ(passed(*aggregator, ""), "");
  EXPECT_EQ(held(*aggregator), "");
}

TEST(ZPKMutableDataAggregatorTransformerTest, ANullChunkChangesNothingEvenWithAUnitHeld) {
  const auto aggregator = splittingAt(";");
  passed(*aggregator, "A;B;");
  ASSERT_EQ(held(*aggregator), "B;");
  aggregator->modifyData(nullptr);
  EXPECT_EQ(held(*aggregator), "B;");
}

TEST(ZPKMutableDataAggregatorTransformerTest, TheFirstOccurrenceSplitsAndNotTheLast) {
  const auto aggregator = splittingAt("aa");
  EXPECT_EQ(passed(*aggregator, "baaa"), "baa");
  EXPECT_EQ(held(*aggregator), "a");
}

TEST(ZPKMutableDataAggregatorTransformerTest, BytesAreComparedExactlyIncludingZeros) {
  const std::string terminator("\0\xff", 2);
  const auto aggregator = splittingAt(terminator);
  const std::string unit = std::string("a\0b\xff", 4) + terminator;
  EXPECT_EQ(passed(*aggregator, unit + "c"), unit);
  EXPECT_EQ(held(*aggregator), "c");
}

TEST(ZPKMutableDataAggregatorTransformerTest, AfterAChangeOnlyTheNewTerminatorSplitsOldBytes) {
  const auto aggregator = splittingAt("> ");
  ASSERT_EQ(passed(*aggregator, "x> A> B$ "), "x> ");
  aggregator->setData2Find(dataOf("$ "));
  EXPECT_EQ(held(*aggregator), "A> B$ ");
  EXPECT_EQ(passed(*aggregator, ""), "A> B$ ");
}

TEST(ZPKMutableDataAggregatorTransformerTest, AnEmptyTerminatorFlushesOnTheNextCallOnly) {
  const auto aggregator = splittingAt("> ");
  passed(*aggregator, "no end yet");
  aggregator->setData2Find(ZPKData::data());
  EXPECT_EQ(held(*aggregator), "no end yet");
  EXPECT_EQ(passed(*aggregator, ""), "no end yet");
  EXPECT_EQ(held(*aggregator), "");
}

TEST(ZPKMutableDataAggregatorTransformerTest, ANullTerminatorLetsHeldAndNewBytesThrough) {
  const auto aggregator = splittingAt("> ");
  passed(*aggregator, "held ");
  aggregator->setData2Find(nullptr);
  EXPECT_EQ(aggregator->data2Find(), nullptr);
  EXPECT_EQ(passed(*aggregator, "new"), "held new");
  EXPECT_EQ(passed(*aggregator, "more"), "more");
  EXPECT_EQ(held(*aggregator), "");
}

TEST(ZPKMutableDataAggregatorTransformerTest, CreatedWithoutATerminatorItLetsEverythingThrough) {
  for (const ZPKDataPtr& none : {ZPKDataPtr(), ZPKData::data()}) {
    const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(none);
    EXPECT_EQ(passed(*aggregator, "abc"), "abc");
    EXPECT_EQ(passed(*aggregator, ""), "");
  }
}

TEST(ZPKMutableDataAggregatorTransformerTest, TheFirstTerminatorIsCopiedButLaterOnesAreNot) {
  const ZPKMutableDataPtr terminator = chunkOf(";");
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(terminator);
  terminator->setContents(*dataOf(","));
  EXPECT_EQ(aggregator->data2Find()->view(), ";");
  EXPECT_EQ(passed(*aggregator, "a,b;"), "a,b;");

  aggregator->setData2Find(terminator);
  EXPECT_EQ(aggregator->data2Find(), terminator);
  terminator->setContents(*dataOf("."));
  EXPECT_EQ(passed(*aggregator, "a,b."), "a,b.");
  terminator->setLength(0);
  EXPECT_EQ(passed(*aggregator, "all"), "all");
}

TEST(ZPKMutableDataAggregatorTransformerTest, TheBufferStaysTheSameObject) {
  const auto aggregator = splittingAt(";");
  const ZPKMutableDataPtr buffer = aggregator->buffer();
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->length(), 0U);
  passed(*aggregator, "a;b;c");
  passed(*aggregator, "");
  EXPECT_TRUE(aggregator->reset());
  passed(*aggregator, "tail");
  EXPECT_EQ(aggregator->buffer(), buffer);
  EXPECT_EQ(buffer->view(), "tail");
}

TEST(ZPKMutableDataAggregatorTransformerTest, EmptyingTheBufferDropsTheHeldBytes) {
  const auto aggregator = splittingAt(";");
  passed(*aggregator, "old");
  aggregator->buffer()->setLength(0);
  EXPECT_EQ(passed(*aggregator, "new;"), "new;");
}

TEST(ZPKMutableDataAggregatorTransformerTest, BytesPutIntoTheBufferAreSearchedToo) {
  const auto aggregator = splittingAt(";");
  passed(*aggregator, "abc");
  aggregator->buffer()->mutableBytes()[1] = ';';
  EXPECT_EQ(passed(*aggregator, ""), "a;");
  EXPECT_EQ(held(*aggregator), "c");
}

TEST(ZPKMutableDataAggregatorTransformerTest, TheResultAndTheBufferShareNoBytes) {
  const auto aggregator = splittingAt(";");
  const ZPKMutableDataPtr first = chunkOf("a;bc");
  aggregator->modifyData(first.get());
  first->append("xxxx", 4);
  first->mutableBytes()[0] = 'X';
  EXPECT_EQ(held(*aggregator), "bc");
  const ZPKMutableDataPtr second = chunkOf("d");
  aggregator->modifyData(second.get());
  second->append("yyyy", 4);
  EXPECT_EQ(held(*aggregator), "bcd");
  EXPECT_EQ(first->view(), "X;xxxx");
}

TEST(ZPKMutableDataAggregatorTransformerTest, ResetDropsTheBytesButKeepsTerminatorAndSlot) {
  const auto aggregator = splittingAt(";");
  passed(*aggregator, "old");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(aggregator->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(held(*aggregator), "");
  EXPECT_EQ(passed(*aggregator, "new;"), "new;");
}

// The chunk that a transport passes up when no bytes were waiting at the start of its read.
ZPKMutableDataPtr chunkInALargeBlock(std::string_view bytes) {
  constexpr size_t kBlock = 65'536;
  void* const block = std::malloc(kBlock);
  std::memcpy(block, bytes.data(), bytes.size());
  return ZPKMutableData::dataWithBytesNoCopy(block, bytes.size(), kBlock);
}

// The size of the block behind an empty buffer.
size_t blockBehind(const ZPKMutableData& buffer) {
  EXPECT_EQ(buffer.length(), 0U);
  return ::malloc_usable_size(const_cast<uint8_t*>(buffer.bytes()));
}

// Stations hold hundreds of idle channels.
TEST(ZPKMutableDataAggregatorTransformerTest, AnIdleAggregatorKeepsNoLargeBlock) {
  const auto aggregator = splittingAt("> ");
  for (const char* part : {"half", "> "}) aggregator->modifyData(chunkInALargeBlock(part).get());
  EXPECT_LE(blockBehind(*aggregator->buffer()), 1024U);

  for (const char* part : {"a", "> b", "> "}) {
    aggregator->modifyData(chunkInALargeBlock(part).get());
  }
  EXPECT_LE(blockBehind(*aggregator->buffer()), 1024U);

  aggregator->modifyData(chunkInALargeBlock("half").get());
  aggregator->setData2Find(nullptr);
  aggregator->modifyData(chunkInALargeBlock("rest").get());
  EXPECT_LE(blockBehind(*aggregator->buffer()), 1024U);

  aggregator->setData2Find(dataOf("> "));
  passed(*aggregator, std::string(1'000'000, 'x'));
  aggregator->reset();
  EXPECT_LE(blockBehind(*aggregator->buffer()), 1024U);
}

TEST(ZPKMutableDataAggregatorTransformerTest, NoOperationLogs) {
  LogCapture log;
  const auto aggregator = splittingAt("%s");
  EXPECT_EQ(passed(*aggregator, "%n%@ %s%d"), "%n%@ %s");
  aggregator->reset();
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST(ZPKMutableDataAggregatorTransformerTest, AMegabyteWithManyUnitsComesOutWhole) {
  std::string stream;
  while (stream.size() < 1'000'000) stream += "line " + std::to_string(stream.size()) + "\n";
  const auto aggregator = splittingAt("\n");
  std::string out = passed(*aggregator, stream);
  for (std::string unit = passed(*aggregator, ""); !unit.empty(); unit = passed(*aggregator, "")) {
    ASSERT_EQ(unit.find('\n'), unit.size() - 1);
    out += unit;
  }
  EXPECT_EQ(out, stream);
}

// Whichever path the code takes, each call must match the reference: with and without held bytes,
// for terminators of several lengths, and with changes in between.
TEST(ZPKMutableDataAggregatorTransformerTest, EveryCallMatchesTheReferenceImplementation) {
  std::mt19937 random(31);
  for (int round = 0; round < 300; ++round) {
    const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(nullptr);
    PlainAggregator plain;
    for (int call = 0; call < 60; ++call) {
      const auto choice = random() % 30;
      if (choice < 4) {
        const std::string terminator = randomText(random, "ab", 3);
        aggregator->setData2Find(dataOf(terminator));
        plain.setTerminator(terminator);
      } else if (choice == 4) {
        aggregator->setData2Find(nullptr);
        plain.setTerminator(std::nullopt);
      } else if (choice == 5) {
        aggregator->reset();
        plain.reset();
      } else if (choice == 6) {
        aggregator->modifyData(nullptr);
      } else {
        const std::string chunk = randomText(random, "abc", choice % 3 == 0 ? 200 : 7);
        ASSERT_EQ(passed(*aggregator, chunk), plain.modifyData(chunk)) << "chunk " << chunk;
      }
      ASSERT_EQ(held(*aggregator), plain.buffer());
    }
  }
}

TEST(ZPKMutableDataAggregatorTransformerTest, AHeldUnitIsWhatAnEmptyChunkWouldReturn) {
  std::mt19937 random(8);
  for (const std::string_view terminator : {";", "ab", "abc;"}) {
    const auto asked = splittingAt(terminator);
    const auto fed = splittingAt(terminator);
    for (int call = 0; call < 1000; ++call) {
      const std::string bytes = randomText(random, "abc;", random() % 20 == 0 ? 2000 : 7);
      asked->buffer()->append(*dataOf(bytes));
      fed->buffer()->append(*dataOf(bytes));
      ASSERT_EQ(bytesOf(ZPITakeHeldUnit(*asked)).value_or(""), passed(*fed, ""));
      ASSERT_EQ(held(*asked), held(*fed));
    }
  }
}

TEST(ZPKMutableDataAggregatorTransformerTest, WithoutATerminatorNoUnitIsHeld) {
  for (const ZPKDataPtr& none : {ZPKDataPtr(), ZPKData::data()}) {
    const auto aggregator = splittingAt(";");
    aggregator->buffer()->setContents(*dataOf("a;b"));
    aggregator->setData2Find(none);
    EXPECT_EQ(ZPITakeHeldUnit(*aggregator), nullptr);
    EXPECT_EQ(held(*aggregator), "a;b");
  }
}

// A unit ends in one of the two terminators, never in half of one.
TEST(ZPKMutableDataAggregatorTransformerTest, ATerminatorCanBeSwappedOnAnotherThreadDuringCalls) {
  const auto aggregator = splittingAt("=> ");
  std::atomic<bool> stops{false};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    for (; !stops; ++swaps) aggregator->setData2Find(dataOf(swaps % 2 == 0 ? "$ " : "=> "));
  });
  std::string in;
  std::string out;
  for (int call = 0; call < 2000 || swaps < 100; ++call) {
    in += "a=> b$ ";
    const std::string unit = passed(*aggregator, "a=> b$ ");
    EXPECT_TRUE(unit.ends_with("=> ") || unit.ends_with("$ ")) << unit;
    out += unit;
  }
  stops = true;
  swapper.join();
  EXPECT_EQ(out + held(*aggregator), in);
}

}  // namespace
