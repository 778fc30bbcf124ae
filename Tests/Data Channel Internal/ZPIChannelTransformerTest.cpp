#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Data Channel Internal/ZPIChannelTransformer.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/ScriptedChannel.h"
#include "Support/ScriptedTransformer.h"

using namespace support;

namespace {

using testing::ElementsAre;

class ZPIChannelTransformerTest : public testing::Test {
 protected:
  using Channel = std::shared_ptr<ZPIChannelTransformer>;

  Channel wrap(ZPKDataTransformerArray read, ZPKDataTransformerArray write = {}) const {
    return ZPIChannelTransformer::initWithChannel(below, std::move(read), std::move(write));
  }
  Channel wrapWithPreread(ZPKDataTransformerArray read) const {
    return ZPIChannelTransformer::initWithChannel(below, std::move(read), {}, true);
  }

  // The result of a read; null for null. Expects that the slot is not touched.
  std::optional<std::string> read(const Channel& channel) const {
    ZPKErrorPtr error = olderError();
    const ZPKDataPtr data = channel->readWithTimeout(1.5, &error);
    EXPECT_EQ(error, olderError());
    if (data == nullptr) return std::nullopt;
    return std::string(data->view());
  }

  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
};

// --- Reads.

TEST_F(ZPIChannelTransformerTest, WithoutTransformersAReadPasses) {
  const auto channel = wrap({});
  below->addRead("abc");
  EXPECT_EQ(read(channel), "abc");
  EXPECT_EQ(read(channel), "");
  EXPECT_THAT(below->readTimeouts(), ElementsAre(1.5, 1.5));
}

TEST_F(ZPIChannelTransformerTest, ReadTransformersRunInOrderOnOneBuffer) {
  const auto first = ScriptedTransformer::adding("1");
  const auto second = ScriptedTransformer::adding("2");
  const auto written = ScriptedTransformer::adding("w");
  const auto channel = wrap({first, second}, {written});
  below->addRead("a");
  EXPECT_EQ(read(channel), "a12");
  EXPECT_THAT(first->chunks(), ElementsAre("a"));
  EXPECT_THAT(second->chunks(), ElementsAre("a1"));
  EXPECT_THAT(written->chunks(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, ASharedResultFromBelowIsCopiedAndNeverEdited) {
  const ZPKMutableDataPtr kept = chunkOf("abc");
  below->addRead(kept);
  const auto channel = wrap({ScriptedTransformer::make([](ZPKMutableData* data) {
    data->mutableBytes()[0] = 'X';
    data->append("!", 1);
  })});
  EXPECT_EQ(read(channel), "Xbc!");
  EXPECT_EQ(kept->view(), "abc");
}

TEST_F(ZPIChannelTransformerTest, ASharedResultIsCopiedEvenWithoutTransformers) {
  const ZPKMutableDataPtr kept = chunkOf("abc");
  below->addRead(kept);
  const ZPKDataPtr result = wrap({})->readWithTimeout(0.0, nullptr);
  EXPECT_NE(result, kept);
  kept->setContents(*dataOf("xyz"));
  EXPECT_EQ(result->view(), "abc");
}

TEST_F(ZPIChannelTransformerTest, EveryResultIsMutableEvenWithoutTransformers) {
  below->addRead(dataOf("abc"));
  below->addRead(ZPKData::data());
  for (const char* bytes : {"abc", ""}) {
    const ZPKDataPtr result = wrap({})->readWithTimeout(0.0, nullptr);
    EXPECT_TRUE(result->isMutable());
    EXPECT_EQ(result->view(), bytes);
  }
}

TEST_F(ZPIChannelTransformerTest, AResultThatNobodyElseHoldsIsNotCopied) {
  ZPKMutableDataPtr given = chunkOf("abc");
  const uint8_t* const bytes = given->bytes();
  below->addRead(std::move(given));
  const ZPKDataPtr result = wrap({})->readWithTimeout(0.0, nullptr);
  EXPECT_EQ(result->bytes(), bytes);
}

TEST_F(ZPIChannelTransformerTest, ASwallowedReadReturnsEmptyDataAtOnce) {
  const auto channel = wrap({ScriptedTransformer::emptying()});
  below->addRead("abc");
  below->addRead("def");
  EXPECT_EQ(read(channel), "");
  EXPECT_EQ(below->readTimeouts().size(), 1U);
}

TEST_F(ZPIChannelTransformerTest, AnEmptyReadRunsTheTransformersToo) {
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  const auto channel = wrap({aggregator});
  below->addRead("a;b;c");
  below->addRead("");
  EXPECT_EQ(read(channel), "a;");
  EXPECT_EQ(read(channel), "b;");
  EXPECT_EQ(read(channel), "");
  EXPECT_EQ(aggregator->buffer()->view(), "c");
}

TEST_F(ZPIChannelTransformerTest, AFailedReadRunsNoTransformerAndDropsNothing) {
  LogCapture log;
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  const auto watcher = ScriptedTransformer::make();
  const auto channel = wrap({aggregator, watcher});
  below->addRead("half");
  below->addFailedRead(errorWithCode(5), false);
  below->addRead(";");
  EXPECT_EQ(read(channel), "");
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(watcher->chunks().size(), 1U);
  EXPECT_EQ(read(channel), "half;");
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, ACleanCloseBelowGivesNullWithoutAnError) {
  const auto watcher = ScriptedTransformer::make();
  const auto channel = wrap({watcher});
  below->addFailedRead(nullptr);
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(watcher->chunks(), ElementsAre());
}

// --- Reads that ask the transformers first.

TEST_F(ZPIChannelTransformerTest, PrereadDeliversAHeldUnitWithoutAReadBelow) {
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  const auto channel = wrapWithPreread({aggregator});
  below->addRead("a;b;c");
  EXPECT_EQ(read(channel), "a;");
  EXPECT_EQ(read(channel), "b;");
  EXPECT_THAT(below->readTimeouts(), ElementsAre(1.5));
  EXPECT_EQ(read(channel), "");
  EXPECT_THAT(below->readTimeouts(), ElementsAre(1.5, 1.5));
}

TEST_F(ZPIChannelTransformerTest, PrereadNoticesAFailureBelowOnlyWhenNothingIsHeld) {
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  const auto channel = wrapWithPreread({aggregator});
  below->addRead("a;b;c;");
  below->addFailedRead(errorWithCode(5));
  EXPECT_EQ(read(channel), "a;");
  below->setOpened(false);
  EXPECT_EQ(read(channel), "b;");
  EXPECT_EQ(read(channel), "c;");
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
}

TEST_F(ZPIChannelTransformerTest, PrereadRunsAllTransformersOnAnEmptyBufferThenReads) {
  const auto first = ScriptedTransformer::make();
  const auto second = ScriptedTransformer::make();
  const auto channel = wrapWithPreread({first, second});
  below->addRead("abc");
  EXPECT_EQ(read(channel), "abc");
  EXPECT_THAT(first->chunks(), ElementsAre("", "abc"));
  EXPECT_THAT(second->chunks(), ElementsAre("", "abc"));
}

TEST_F(ZPIChannelTransformerTest, PrereadReturnsWhatTheTransformersAddToAnEmptyBuffer) {
  const auto channel = wrapWithPreread({ScriptedTransformer::adding("1")});
  below->addRead("abc");
  EXPECT_EQ(read(channel), "1");
  EXPECT_EQ(read(channel), "1");
  EXPECT_THAT(below->calls(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, WithoutPrereadTheTransformersSeeOnlyWhatIsRead) {
  const auto watcher = ScriptedTransformer::make();
  const auto channel = wrap({watcher});
  below->addRead("abc");
  EXPECT_EQ(read(channel), "abc");
  EXPECT_THAT(watcher->chunks(), ElementsAre("abc"));
}

// --- Writes.

TEST_F(ZPIChannelTransformerTest, WriteTransformersRunInOrderOnACopy) {
  const auto readWatcher = ScriptedTransformer::make();
  const auto channel =
      wrap({readWatcher}, {ScriptedTransformer::adding("1"), ScriptedTransformer::adding("2")});
  const ZPKMutableDataPtr data = chunkOf("a");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->write(data, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->writes(), ElementsAre("a12"));
  EXPECT_EQ(data->view(), "a");
  EXPECT_THAT(readWatcher->chunks(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, ANullWriteFailsWithoutErrorLogOrWriteBelow) {
  LogCapture log;
  const auto watcher = ScriptedTransformer::make();
  for (const auto& channel : {wrap({}), wrap({}, {watcher})}) {
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(channel->write(nullptr, &error));
    EXPECT_EQ(error, olderError());
    EXPECT_FALSE(channel->write(nullptr, nullptr));
  }
  EXPECT_THAT(watcher->chunks(), ElementsAre());
  EXPECT_THAT(below->calls(), ElementsAre());
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, AnEmptyWriteGoesThroughTheTransformers) {
  EXPECT_TRUE(wrap({}, {ScriptedTransformer::adding("\n")})->write(ZPKData::data(), nullptr));
  EXPECT_THAT(below->writes(), ElementsAre("\n"));
}

TEST_F(ZPIChannelTransformerTest, AnEmptiedWriteIsStillPassedDown) {
  EXPECT_TRUE(wrap({}, {ScriptedTransformer::emptying()})->write(dataOf("abc"), nullptr));
  EXPECT_THAT(below->writes(), ElementsAre(""));
}

TEST_F(ZPIChannelTransformerTest, AFailedWritePassesItsError) {
  LogCapture log;
  below->setWriteResult(false, errorWithCode(5));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(wrap({})->write(dataOf("abc"), &error));
  EXPECT_EQ(error->code(), 5);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, DataIsNeverUsedAsAFormat) {
  LogCapture log;
  const auto channel = wrap({ScriptedTransformer::make()}, {ScriptedTransformer::make()});
  below->addRead("%s%n%@%d");
  EXPECT_EQ(read(channel), "%s%n%@%d");
  EXPECT_TRUE(channel->write(dataOf("%s%n%@%d"), nullptr));
  EXPECT_THAT(below->writes(), ElementsAre("%s%n%@%d"));
  EXPECT_THAT(log.lines(), ElementsAre());
}

// --- Reset, open, close.

// The members of the chain, in the order in which they are reset.
class ZPIChannelTransformerResetTest : public ZPIChannelTransformerTest {
 protected:
  ZPIChannelTransformerResetTest() {
    for (size_t i = 0; i < 4; ++i) {
      transformers.push_back(ScriptedTransformer::make());
      transformers.back()->setOnReset([this, i] { order.push_back(i); });
    }
    channel = wrap({transformers[0], transformers[1]}, {transformers[2], transformers[3]});
  }

  void fail(size_t member) {
    if (member < 4) {
      transformers[member]->setResetResult(false, errorWithCode(static_cast<int>(member)));
    } else {
      below->setResetResult(false, errorWithCode(static_cast<int>(member)));
    }
  }

  std::vector<std::shared_ptr<ScriptedTransformer>> transformers;
  std::vector<size_t> order;
  Channel channel;
};

TEST_F(ZPIChannelTransformerResetTest, ResetsTheReadListTheWriteListAndTheChannel) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(order, ElementsAre(0U, 1U, 2U, 3U));
  EXPECT_THAT(below->calls(), ElementsAre("reset"));
}

TEST_F(ZPIChannelTransformerResetTest, ContinuesAfterAnyFailureAndReportsTheFirst) {
  for (size_t firstToFail = 5; firstToFail-- > 0;) {
    fail(firstToFail);  // and those after it, from the rounds before
    order.clear();
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(channel->reset(&error));
    EXPECT_EQ(error->code(), static_cast<int>(firstToFail));
    EXPECT_THAT(order, ElementsAre(0U, 1U, 2U, 3U));
    EXPECT_FALSE(channel->reset(nullptr));
  }
  EXPECT_THAT(below->calls(), testing::Each("reset"));
  EXPECT_EQ(below->calls().size(), 10U);
}

TEST_F(ZPIChannelTransformerResetTest, AFirstFailureWithoutAnErrorLeavesNull) {
  transformers[1]->setResetResult(false, nullptr);
  fail(4);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->reset(&error));
  EXPECT_EQ(error, nullptr);
}

TEST_F(ZPIChannelTransformerTest, ATransformerInBothListsIsResetTwice) {
  const auto shared = ScriptedTransformer::make();
  EXPECT_TRUE(wrap({shared}, {shared})->reset(nullptr));
  EXPECT_EQ(shared->resets(), 2);
}

TEST_F(ZPIChannelTransformerTest, OpenAndCloseTouchNoTransformer) {
  const auto transformer = ScriptedTransformer::make();
  const auto channel = wrap({transformer}, {transformer});
  below->setOpened(false);
  EXPECT_TRUE(channel->openWithTimeout(2.0, nullptr));
  EXPECT_TRUE(channel->close(nullptr));
  EXPECT_EQ(transformer->resets(), 0);
  EXPECT_THAT(transformer->chunks(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, HeldBytesSurviveCloseAndOpenButNotReset) {
  const auto aggregator = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  const auto channel = wrap({aggregator});
  below->addRead("half");
  below->addRead(";");
  EXPECT_EQ(read(channel), "");
  EXPECT_TRUE(channel->close(nullptr));
  EXPECT_TRUE(channel->openWithTimeout(0.0, nullptr));
  EXPECT_EQ(read(channel), "half;");
  below->addRead("half");
  EXPECT_EQ(read(channel), "");
  EXPECT_TRUE(channel->reset(nullptr));
  EXPECT_EQ(aggregator->buffer()->length(), 0U);
}

// --- The lists.

TEST_F(ZPIChannelTransformerTest, TheChannelCopiesTheCallersLists) {
  ZPKDataTransformerArray list{ScriptedTransformer::adding("1")};
  const auto channel = ZPIChannelTransformer::initWithChannel(below, list, list);
  list.clear();
  below->addRead("a");
  EXPECT_EQ(read(channel), "a1");
  EXPECT_TRUE(channel->write(dataOf("b"), nullptr));
  EXPECT_THAT(below->writes(), ElementsAre("b1"));
}

TEST_F(ZPIChannelTransformerTest, ModifyDataRunsOnlyTheReadTransformers) {
  const auto channel = wrap({ScriptedTransformer::adding("1"), ScriptedTransformer::adding("2")},
                            {ScriptedTransformer::adding("w")});
  const ZPKMutableDataPtr data = chunkOf("a");
  channel->modifyData(data.get());
  EXPECT_EQ(data->view(), "a12");
  EXPECT_THAT(below->calls(), ElementsAre());
}

TEST_F(ZPIChannelTransformerTest, AReaderAndAWriterCanRunTogether) {
  const auto channel = wrap({ScriptedTransformer::adding("r")}, {ScriptedTransformer::adding("w")});
  std::thread writer([&] {
    for (int i = 0; i < 500; ++i) EXPECT_TRUE(channel->write(dataOf("a"), nullptr));
  });
  for (int i = 0; i < 500; ++i) EXPECT_EQ(read(channel), "r");
  writer.join();
  EXPECT_EQ(below->writes(), std::vector<std::optional<std::string>>(500, "aw"));
}

}  // namespace
