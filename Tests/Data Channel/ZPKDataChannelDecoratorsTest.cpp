#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogFile.h"
#include "Support/ScriptedChannel.h"
#include "Support/ScriptedTransformer.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"

using namespace support;

namespace {

using testing::ElementsAre;

constexpr const char* kNullChannel = "channel cannot be nil";
constexpr const char* kNullInReadList =
    "Objects in readTransformers must conform to ZPKDataTransformer";
constexpr const char* kNullInWriteList =
    "Objects in writeTransformers must conform to ZPKDataTransformer";
constexpr const char* kBadDelimiter = "delimiter cannot be nil, or empty";

ZPKDataTransformerArray goodList() { return {ScriptedTransformer::make()}; }

ZPKDataTransformerArray badList() { return {ScriptedTransformer::make(), nullptr}; }

ZPKDataChannelPtr someChannel() { return ScriptedChannel::make(); }

ZPKMutableDataAggregatorTransformerPtr someAggregator() {
  return ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
}

// One way to call a factory that must fail.
struct RefusedDecorator {
  const char* name;
  std::function<ZPKDataChannelPtr(ZPKErrorPtr* error)> call;
  const char* function;
  const char* description;
};

void PrintTo(const RefusedDecorator& refused, std::ostream* stream) { *stream << refused.name; }

class RefusedDecoratorTest : public testing::TestWithParam<RefusedDecorator> {};

TEST_P(RefusedDecoratorTest, ReturnsNullFillsTheSlotAndLogsOnce) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(GetParam().call(&error), nullptr);
  expectFailure(error, log,
                {"zephal-communication", 3, GetParam().description, GetParam().function,
                 "ZPKDataChannelDecorators.cpp"});
}

TEST_P(RefusedDecoratorTest, WithoutASlotReturnsNullAndStillLogsOnce) {
  LogCapture log;
  EXPECT_EQ(GetParam().call(nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, GetParam().description}));
}

// The arguments are checked in order: the first wrong one is reported.
const RefusedDecorator kRefusedDecorators[] = {
    {"TransformerNullChannel",
     [](ZPKErrorPtr* error) {
       return createChannelTransformer(nullptr, badList(), badList(), error);
     },
     "createChannelTransformer__internal", kNullChannel},
    {"TransformerNullInReadList",
     [](ZPKErrorPtr* error) {
       return createChannelTransformer(someChannel(), badList(), badList(), error);
     },
     "createChannelTransformer__internal", kNullInReadList},
    {"TransformerNullInWriteList",
     [](ZPKErrorPtr* error) {
       return createChannelTransformer(someChannel(), goodList(), badList(), error);
     },
     "createChannelTransformer__internal", kNullInWriteList},
    {"PreCallNullChannel",
     [](ZPKErrorPtr* error) { return createChannelTransformerWithPreCall(nullptr, {}, {}, error); },
     "createChannelTransformer__internal", kNullChannel},
    {"PreCallNullInReadList",
     [](ZPKErrorPtr* error) {
       return createChannelTransformerWithPreCall(someChannel(), badList(), {}, error);
     },
     "createChannelTransformer__internal", kNullInReadList},
    {"PreCallNullInWriteList",
     [](ZPKErrorPtr* error) {
       return createChannelTransformerWithPreCall(someChannel(), {}, badList(), error);
     },
     "createChannelTransformer__internal", kNullInWriteList},
    {"InternalNullChannel",
     [](ZPKErrorPtr* error) {
       return createChannelTransformer__internal(nullptr, {}, {}, true, error);
     },
     "createChannelTransformer__internal", kNullChannel},
    {"ActiveNullChannel", [](ZPKErrorPtr* error) { return createActiveChannel(nullptr, error); },
     "createActiveChannel", kNullChannel},
    {"ActiveNullFormNullChannel",
     [](ZPKErrorPtr* error) { return createActiveNullChannel(nullptr, error); },
     "createActiveNullChannel", kNullChannel},
    {"PassiveNullChannel", [](ZPKErrorPtr* error) { return createPassiveChannel(nullptr, error); },
     "createPassiveChannel", kNullChannel},
    {"EchoRemovalNullChannel",
     [](ZPKErrorPtr* error) { return createEchoRemovalChannel(nullptr, nullptr, error); },
     "createEchoRemovalChannel", kNullChannel},
    {"EchoRemovalNullDelimiter",
     [](ZPKErrorPtr* error) { return createEchoRemovalChannel(someChannel(), nullptr, error); },
     "createEchoRemovalChannel", kBadDelimiter},
    {"EchoRemovalEmptyDelimiter",
     [](ZPKErrorPtr* error) {
       return createEchoRemovalChannel(someChannel(), ZPKData::data(), error);
     },
     "createEchoRemovalChannel", kBadDelimiter},
    {"LoggingNullChannel",
     [](ZPKErrorPtr* error) {
       return createLoggingChannel(nullptr, std::nullopt, std::nullopt, false, error);
     },
     "createLoggingChannel", kNullChannel},
    {"LoggingNullPath",
     [](ZPKErrorPtr* error) {
       return createLoggingChannel(someChannel(), std::nullopt, std::nullopt, true, error);
     },
     "createLoggingChannel", "filepath cannot be nil"},
    {"LoggingNullIdentifier",
     [](ZPKErrorPtr* error) {
       return createLoggingChannel(someChannel(), "log", std::nullopt, false, error);
     },
     "createLoggingChannel", "identifier cannot be nil"},
    {"DelayNullChannel",
     [](ZPKErrorPtr* error) { return createInterCharacterDelayChannel(nullptr, 1, error); },
     "createInterCharacterDelayChannel", kNullChannel},
    {"AggregatingNullChannel",
     [](ZPKErrorPtr* error) {
       return createAggregatingTransformerChannel(nullptr, someAggregator(), error);
     },
     "createAggregatingTransformerChannel", kNullChannel},
    {"AggregatingNullChannelAndTransformer",
     [](ZPKErrorPtr* error) {
       return createAggregatingTransformerChannel(nullptr, nullptr, error);
     },
     "createAggregatingTransformerChannel", kNullChannel},
    {"AggregatingNullTransformer",
     [](ZPKErrorPtr* error) {
       return createAggregatingTransformerChannel(someChannel(), nullptr, error);
     },
     "createAggregatingTransformerChannel", "transformer cannot be nil"},
};

INSTANTIATE_TEST_SUITE_P(ZPKDataChannelDecoratorsTest, RefusedDecoratorTest,
                         testing::ValuesIn(kRefusedDecorators),
                         [](const auto& call) { return std::string(call.param.name); });

class ZPKDataChannelDecoratorsTest : public testing::Test {
 protected:
  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
};

TEST_F(ZPKDataChannelDecoratorsTest, GoodArgumentsTouchNeitherSlotNorLogNorChannel) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_NE(createChannelTransformer(below, goodList(), goodList(), &error), nullptr);
  EXPECT_NE(createChannelTransformer(below, {}, {}, &error), nullptr);
  EXPECT_NE(createChannelTransformerWithPreCall(below, goodList(), {}, &error), nullptr);
  EXPECT_NE(createChannelTransformer__internal(below, {}, goodList(), true, &error), nullptr);
  EXPECT_NE(createPassiveChannel(below, &error), nullptr);
  EXPECT_NE(createEchoRemovalChannel(below, dataOf("\n"), &error), nullptr);
  EXPECT_NE(createLoggingChannel(below, "", "", true, &error), nullptr);
  EXPECT_NE(createInterCharacterDelayChannel(below, 0, &error), nullptr);
  EXPECT_NE(createAggregatingTransformerChannel(below, someAggregator(), &error), nullptr);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), ElementsAre());
  EXPECT_THAT(below->calls(), ElementsAre());
}

TEST_F(ZPKDataChannelDecoratorsTest, OnlyThePreCallFormAsksTheTransformersFirst) {
  const ZPKDataTransformerArray adding{ScriptedTransformer::adding("1")};
  for (int i = 0; i < 2; ++i) below->addRead("a");
  EXPECT_EQ(createChannelTransformer(below, adding, {})->readWithTimeout(1.0)->view(), "a1");
  EXPECT_EQ(
      createChannelTransformer__internal(below, adding, {}, false)->readWithTimeout(1.0)->view(),
      "a1");
  EXPECT_EQ(createChannelTransformerWithPreCall(below, adding, {})->readWithTimeout(1.0)->view(),
            "1");
  EXPECT_EQ(
      createChannelTransformer__internal(below, adding, {}, true)->readWithTimeout(1.0)->view(),
      "1");
  EXPECT_EQ(below->readTimeouts().size(), 2U);
}

TEST_F(ZPKDataChannelDecoratorsTest, EachListServesItsDirection) {
  const auto channel = createChannelTransformer(below, {ScriptedTransformer::adding("r")},
                                                {ScriptedTransformer::adding("w")});
  below->addRead("a");
  EXPECT_EQ(channel->readWithTimeout(1.0)->view(), "ar");
  EXPECT_TRUE(channel->write(dataOf("b")));
  EXPECT_THAT(below->writes(), ElementsAre("bw"));
}

TEST_F(ZPKDataChannelDecoratorsTest, APassiveChannelReadsInSlices) {
  below->addRead("");
  below->addRead("a");
  EXPECT_EQ(createPassiveChannel(below)->readWithTimeout(1000.0)->view(), "a");
  EXPECT_THAT(below->readTimeouts(), ElementsAre(100.0, 100.0));
}

TEST_F(ZPKDataChannelDecoratorsTest, AnEchoRemovalChannelUsesItsDelimiter) {
  const auto channel = createEchoRemovalChannel(below, dataOf(";"));
  EXPECT_TRUE(channel->write(dataOf("a\n;")));
  below->addRead("a\n;b;");
  EXPECT_EQ(channel->readWithTimeout(1.0)->view(), "b;");
}

TEST_F(ZPKDataChannelDecoratorsTest, ALoggingChannelHasItsFileIdentifierAndMode) {
  const TemporaryFolder folder;
  for (const bool synchronous : {false, true}) {
    const std::string path = folder.pathOf(synchronous ? "one" : "other");
    const auto channel = createLoggingChannel(below, path, "id", synchronous);
    EXPECT_EQ(std::dynamic_pointer_cast<ZPILoggingChannel>(channel)->synchronousLogging(),
              synchronous);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(channel->openWithTimeout(1.0));
    EXPECT_TRUE(channel->write(dataOf("a")));
    EXPECT_TRUE(channel->close());
    EXPECT_THAT(textsOfLog(path), ElementsAre("id-write: a"));
  }
}

TEST_F(ZPKDataChannelDecoratorsTest, ADelayChannelPausesForItsDelay) {
  SystemCalls calls;
  calls.answer("usleep", 0);
  EXPECT_TRUE(createInterCharacterDelayChannel(below, 250)->write(dataOf("a")));
  EXPECT_THAT(calls.texts({"usleep"}), ElementsAre("usleep 250"));
}

TEST_F(ZPKDataChannelDecoratorsTest, AnAggregatingChannelSharesItsTransformer) {
  const auto aggregator = someAggregator();
  const auto channel = createAggregatingTransformerChannel(below, aggregator);
  below->addRead("a;b,c");
  EXPECT_EQ(channel->readWithTimeout(1.0)->view(), "a;");
  EXPECT_EQ(aggregator->buffer()->view(), "b,c");
  aggregator->setData2Find(dataOf(","));
  EXPECT_EQ(channel->readWithTimeout(1.0)->view(), "b,");
}

TEST_F(ZPKDataChannelDecoratorsTest, ADecoratorHoldsTheChannelBelowWithoutClosingIt) {
  std::weak_ptr<ScriptedChannel> weak;
  {
    auto channel = ScriptedChannel::make();
    weak = channel;
    ZPKDataChannelPtr top = createPassiveChannel(channel);
    top = createEchoRemovalChannel(top, dataOf("\n"));
    top = createLoggingChannel(top, "/dev/null", "id", false);
    top = createInterCharacterDelayChannel(top, 0);
    top = createAggregatingTransformerChannel(top, someAggregator());
    top = createChannelTransformer(top, {}, {});
    channel.reset();
    ASSERT_FALSE(weak.expired());
    const auto kept = weak.lock();
    top.reset();
    EXPECT_THAT(kept->calls(), ElementsAre());
  }
  EXPECT_TRUE(weak.expired());
}

}  // namespace
