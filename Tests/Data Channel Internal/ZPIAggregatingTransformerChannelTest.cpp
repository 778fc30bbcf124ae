#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Data Channel Internal/ZPIAggregatingTransformerChannel.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/ScriptedChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;

class ZPIAggregatingTransformerChannelTest : public testing::Test {
 protected:
  // The result of a read; null for null. Expects that the slot is not touched.
  std::optional<std::string> read() const {
    ZPKErrorPtr error = olderError();
    const ZPKDataPtr data = channel->readWithTimeout(1.5, &error);
    EXPECT_EQ(error, olderError());
    if (data == nullptr) return std::nullopt;
    return std::string(data->view());
  }
  std::string held() const { return std::string(aggregator->buffer()->view()); }

  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
  const ZPKMutableDataAggregatorTransformerPtr aggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf("> "));
  const ZPKDataChannelPtr channel =
      ZPIAggregatingTransformerChannel::initWithChannel(below, aggregator);
};

TEST_F(ZPIAggregatingTransformerChannelTest, AnIncompleteUnitIsEmptyDataAfterOneReadBelow) {
  below->addRead("half");
  below->addRead("> ");
  EXPECT_EQ(read(), "");
  EXPECT_EQ(held(), "half");
  EXPECT_THAT(below->readTimeouts(), ElementsAre(1.5));
  EXPECT_EQ(read(), "half> ");
}

TEST_F(ZPIAggregatingTransformerChannelTest, ASecondUnitNeedsNoReadBelow) {
  below->addRead("a> b> c");
  EXPECT_EQ(read(), "a> ");
  EXPECT_EQ(read(), "b> ");
  EXPECT_EQ(below->readTimeouts().size(), 1U);
  EXPECT_EQ(read(), "");
  EXPECT_EQ(below->readTimeouts().size(), 2U);
  EXPECT_EQ(held(), "c");
}

TEST_F(ZPIAggregatingTransformerChannelTest, ASecondUnitIsReturnedAfterTheChannelBelowCloses) {
  below->addRead("a> b> ");
  below->addFailedRead(errorWithCode(5));
  EXPECT_EQ(read(), "a> ");
  below->setOpened(false);
  EXPECT_EQ(read(), "b> ");
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(1.5, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
}

TEST_F(ZPIAggregatingTransformerChannelTest, AFailedReadKeepsHeldBytes) {
  LogCapture log;
  below->addRead("half");
  below->addFailedRead(errorWithCode(5), false);
  below->addRead("> ");
  EXPECT_EQ(read(), "");
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1.5, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(held(), "half");
  EXPECT_EQ(read(), "half> ");
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ZPIAggregatingTransformerChannelTest, ACleanCloseBelowGivesNullWithoutAnError) {
  below->addRead("half");
  below->addFailedRead(nullptr);
  EXPECT_EQ(read(), "");
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(1.5, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(held(), "half");
}

// Every way to split [ab> cd> ].
TEST_F(ZPIAggregatingTransformerChannelTest, EverySplitOfTheSameBytesGivesTheSameUnits) {
  for (const Chunks& chunks : everySplit("ab> cd> ")) {
    for (const std::string& chunk : chunks) below->addRead(chunk);
    Chunks units;
    for (size_t i = 0; i < chunks.size() + 2; ++i) units.push_back(read().value_or("null"));
    std::erase(units, "");
    EXPECT_THAT(units, ElementsAre("ab> ", "cd> ")) << pictureOf(chunks);
  }
}

TEST_F(ZPIAggregatingTransformerChannelTest, AUnitUnderANewTerminatorNeedsNoReadBelow) {
  below->addRead("a$ b> c");
  EXPECT_EQ(read(), "a$ b> ");
  aggregator->buffer()->setContents(*dataOf("x$ y"));
  aggregator->setData2Find(dataOf("$ "));
  EXPECT_EQ(read(), "x$ ");
  EXPECT_EQ(below->readTimeouts().size(), 1U);
}

TEST_F(ZPIAggregatingTransformerChannelTest, WithoutATerminatorHeldBytesWaitForTheNextRead) {
  for (const ZPKDataPtr& none : {ZPKDataPtr(), ZPKData::data()}) {
    aggregator->setData2Find(dataOf("> "));
    below->addRead("held ");
    EXPECT_EQ(read(), "");
    aggregator->setData2Find(none);
    below->addRead("new");
    const size_t before = below->readTimeouts().size();
    EXPECT_EQ(read(), "held new");
    EXPECT_EQ(below->readTimeouts().size(), before + 1);
  }
}

TEST_F(ZPIAggregatingTransformerChannelTest, WithoutATerminatorAnEmptyReadReleasesHeldBytes) {
  below->addRead("held");
  EXPECT_EQ(read(), "");
  aggregator->setData2Find(nullptr);
  EXPECT_EQ(read(), "held");
  EXPECT_EQ(below->readTimeouts().size(), 2U);
}

TEST_F(ZPIAggregatingTransformerChannelTest, WithoutATerminatorAFailedReadLeavesHeldBytes) {
  below->addRead("held");
  EXPECT_EQ(read(), "");
  aggregator->setData2Find(nullptr);
  below->addFailedRead(errorWithCode(5));
  EXPECT_EQ(channel->readWithTimeout(1.5, nullptr), nullptr);
  EXPECT_EQ(held(), "held");
}

TEST_F(ZPIAggregatingTransformerChannelTest, ASharedResultFromBelowIsCopiedAndNeverEdited) {
  const ZPKMutableDataPtr kept = chunkOf("a> b");
  below->addRead(kept);
  EXPECT_EQ(read(), "a> ");
  EXPECT_EQ(kept->view(), "a> b");
  kept->setContents(*dataOf("xxxx"));
  EXPECT_EQ(held(), "b");
  const ZPKMutableDataPtr whole = chunkOf("c> ");
  below->addRead(whole);
  const ZPKDataPtr result = channel->readWithTimeout(1.5, nullptr);
  EXPECT_EQ(result->view(), "bc> ");
  EXPECT_EQ(whole->view(), "c> ");
}

TEST_F(ZPIAggregatingTransformerChannelTest, AWholeUnitThatIsSharedBelowIsCopiedToo) {
  const ZPKMutableDataPtr kept = chunkOf("a> ");
  below->addRead(kept);
  const ZPKDataPtr result = channel->readWithTimeout(1.5, nullptr);
  EXPECT_NE(result, kept);
  kept->setContents(*dataOf("xyz"));
  EXPECT_EQ(result->view(), "a> ");
}

TEST_F(ZPIAggregatingTransformerChannelTest, WritesPassUnchanged) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->write(dataOf("a> b"), &error));
  EXPECT_TRUE(channel->write(ZPKData::data(), &error));
  EXPECT_TRUE(channel->write(nullptr, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->writes(), ElementsAre("a> b", "", std::nullopt));
  EXPECT_EQ(held(), "");
}

TEST_F(ZPIAggregatingTransformerChannelTest, ResetEmptiesTheAggregatorAndReachesTheChannelBelow) {
  below->addRead("half");
  EXPECT_EQ(read(), "");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(held(), "");
  EXPECT_THAT(below->calls(), ElementsAre("read", "reset"));
}

TEST_F(ZPIAggregatingTransformerChannelTest, AFailedResetBelowStillEmptiesTheAggregator) {
  below->addRead("half");
  EXPECT_EQ(read(), "");
  below->setResetResult(false, errorWithCode(1));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->reset(&error));
  EXPECT_EQ(error->code(), 1);
  EXPECT_FALSE(channel->reset(nullptr));
  EXPECT_EQ(held(), "");
}

TEST_F(ZPIAggregatingTransformerChannelTest, HeldBytesSurviveCloseAndOpen) {
  below->addRead("half");
  below->addRead("> ");
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(channel->close(nullptr));
  EXPECT_TRUE(channel->openWithTimeout(0.0, nullptr));
  EXPECT_EQ(read(), "half> ");
}

// Whichever path the code takes, every read must do what its plain steps do.
TEST_F(ZPIAggregatingTransformerChannelTest, EveryReadDoesWhatThePlainStepsDo) {
  const auto plainAggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(aggregator->data2Find());
  const auto plainRead = [&](const std::optional<std::string>& chunk,
                             bool* isReadBelow) -> std::optional<std::string> {
    *isReadBelow = false;
    const auto empty = ZPKMutableData::data();
    const ZPKDataPtr terminator = plainAggregator->data2Find();
    if (terminator != nullptr && terminator->length() != 0) {
      plainAggregator->modifyData(empty.get());
    }
    if (empty->length() != 0) return std::string(empty->view());
    *isReadBelow = true;
    if (!chunk.has_value()) return std::nullopt;
    return passed(*plainAggregator, *chunk);
  };
  std::mt19937 random(46);
  for (int call = 0; call < 20'000; ++call) {
    if (random() % 10 == 0) {
      const ZPKDataPtr terminator =
          random() % 8 == 0 ? nullptr : dataOf(randomText(random, "ab", 3));
      aggregator->setData2Find(terminator);
      plainAggregator->setData2Find(terminator);
    }
    std::optional<std::string> chunk;
    if (random() % 10 != 0) chunk = randomText(random, "abc", random() % 10 == 0 ? 200 : 6);
    bool isReadBelow = false;
    const std::optional<std::string> expected = plainRead(chunk, &isReadBelow);
    if (isReadBelow && chunk.has_value()) below->addRead(*chunk);
    if (isReadBelow && !chunk.has_value()) below->addFailedRead(nullptr, false);
    const size_t readsBefore = below->readTimeouts().size();
    const ZPKDataPtr data = channel->readWithTimeout(0.0, nullptr);
    ASSERT_EQ(below->readTimeouts().size() - readsBefore, isReadBelow ? 1U : 0U);
    const std::optional<std::string> result =
        data == nullptr ? std::nullopt : std::optional<std::string>(data->view());
    ASSERT_EQ(result, expected);
    ASSERT_EQ(held(), plainAggregator->buffer()->view());
  }
}

TEST_F(ZPIAggregatingTransformerChannelTest, WithoutAnAggregatorReadsAreNotSplit) {
  const auto bare = ZPIAggregatingTransformerChannel::initWithChannel(below, nullptr);
  below->addRead("one> tw");
  below->addRead("");
  below->addFailedRead(errorWithCode(5));
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(bare->readWithTimeout(1.5, &error)->view(), "one> tw");
  EXPECT_EQ(bare->takeHeldUnit(), nullptr);
  EXPECT_EQ(bare->readWithTimeout(1.5, &error)->view(), "");
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(bare->readWithTimeout(1.5, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
}

TEST_F(ZPIAggregatingTransformerChannelTest, WithoutAnAggregatorResetIsPassedDownAndFails) {
  const auto bare = ZPIAggregatingTransformerChannel::initWithChannel(below, nullptr);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(bare->reset(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(bare->reset(nullptr));
  EXPECT_THAT(below->calls(), ElementsAre("reset", "reset"));
}

TEST_F(ZPIAggregatingTransformerChannelTest, TheTerminatorCanBeSwappedOnAnotherThreadDuringReads) {
  std::atomic<bool> stops{false};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    for (; !stops; ++swaps) {
      aggregator->setData2Find(swaps % 3 == 0   ? dataOf("$ ")
                               : swaps % 3 == 1 ? dataOf("> ")
                                                : nullptr);
    }
  });
  std::string in;
  std::string out;
  int calls = 0;
  for (; calls < 1000 || swaps < 100; ++calls) {
    in += "a> b$ ";
    below->addRead("a> b$ ");
    out += read().value_or("null");
  }
  stops = true;
  swapper.join();
  aggregator->setData2Find(nullptr);
  for (int left = calls; left > 0; --left) out += read().value_or("null");
  EXPECT_EQ(out, in);
}

}  // namespace
