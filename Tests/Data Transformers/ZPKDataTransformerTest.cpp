#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Utility/ZPKRegex.h"

using namespace support;

namespace {

using testing::ElementsAre;

using namespace std::string_literals;

void doNothing() {}

void addMark(ZPKMutableData* data) { data->append("!", 1); }

// One way to call a factory that must fail.
struct RefusedCall {
  const char* name;
  std::function<ZPKDataTransformerPtr(ZPKErrorPtr* error)> call;
  const char* function;
  int code;
  const char* description;
};

void PrintTo(const RefusedCall& refused, std::ostream* stream) { *stream << refused.name; }

class RefusedCallTest : public testing::TestWithParam<RefusedCall> {};

TEST_P(RefusedCallTest, ReturnsNullFillsTheSlotAndLogsOnce) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(GetParam().call(&error), nullptr);
  expectFailure(error, log,
                {"zephal-communication", GetParam().code, GetParam().description,
                 GetParam().function, "ZPKDataTransformer.cpp"});
}

TEST_P(RefusedCallTest, WithoutASlotReturnsNullAndStillLogsOnce) {
  LogCapture log;
  EXPECT_EQ(GetParam().call(nullptr), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, GetParam().description}));
}

const RefusedCall kRefusedCalls[] = {
    {"PrependingNull",
     [](ZPKErrorPtr* error) { return createPrependingTransformer(nullptr, error); },
     "createPrependingTransformer", 3, "prepend can not be nil"},
    {"AppendingNull", [](ZPKErrorPtr* error) { return createAppendingTransformer(nullptr, error); },
     "createAppendingTransformer", 3, "data can not be nil"},
    {"BlockWithoutDataBlock",
     [](ZPKErrorPtr* error) { return createBlockTransformer(nullptr, doNothing, error); },
     "createBlockTransformer", 3, "dataBlock cannot be nil"},
    {"BlockWithoutAnyBlock",
     [](ZPKErrorPtr* error) { return createBlockTransformer(nullptr, nullptr, error); },
     "createBlockTransformer", 3, "dataBlock cannot be nil"},
    {"AggregatingNull",
     [](ZPKErrorPtr* error) { return createAggregatingTransformer(nullptr, true, error); },
     "createAggregatingTransformer", 3, "pattern cannot be nil, or empty"},
    {"AggregatingEmpty",
     [](ZPKErrorPtr* error) { return createAggregatingTransformer(ZPKData::data(), false, error); },
     "createAggregatingTransformer", 3, "pattern cannot be nil, or empty"},
    {"PacketAggregatorWidthNine",
     [](ZPKErrorPtr* error) { return createPacketAggregatorTransformer(9, error); },
     "createPacketAggregatorTransformer", 12, "error initializing packet aggregator transformer"},
    {"PacketPrependWidthNine",
     [](ZPKErrorPtr* error) { return createPacketPrependTransformer(9, error); },
     "createPacketPrependTransformer", 12, "error initializing packet prepend transformer"},
    {"FilteringNull", [](ZPKErrorPtr* error) { return createFilteringTransformer(nullptr, error); },
     "createFilteringTransformer", 3, "pattern cannot be nil, or empty"},
    {"FilteringEmpty",
     [](ZPKErrorPtr* error) { return createFilteringTransformer(ZPKData::data(), error); },
     "createFilteringTransformer", 3, "pattern cannot be nil, or empty"},
    {"EventNullPattern",
     [](ZPKErrorPtr* error) {
       return createEventGeneratorTransformer(nullptr, true, doNothing, error);
     },
     "createEventGeneratorTransformer", 3, "pattern cannot be nil, or empty"},
    {"EventEmptyPatternAndNullCallback",
     [](ZPKErrorPtr* error) {
       return createEventGeneratorTransformer(ZPKData::data(), true, nullptr, error);
     },
     "createEventGeneratorTransformer", 3, "pattern cannot be nil, or empty"},
    {"EventNullCallback",
     [](ZPKErrorPtr* error) {
       return createEventGeneratorTransformer(dataOf("a"), false, nullptr, error);
     },
     "createEventGeneratorTransformer", 3, "blk cannot be nil"},
    {"TimeZero", [](ZPKErrorPtr* error) { return createTimeTransformer(0.0, doNothing, error); },
     "createTimeTransformer", 3, "timeout cannot be less than or equal to zero"},
    {"TimeNegative",
     [](ZPKErrorPtr* error) { return createTimeTransformer(-1.0, doNothing, error); },
     "createTimeTransformer", 3, "timeout cannot be less than or equal to zero"},
    {"TimeZeroAndNullCallback",
     [](ZPKErrorPtr* error) { return createTimeTransformer(0.0, nullptr, error); },
     "createTimeTransformer", 3, "timeout cannot be less than or equal to zero"},
    {"TimeNullCallback",
     [](ZPKErrorPtr* error) { return createTimeTransformer(1.0, nullptr, error); },
     "createTimeTransformer", 3, "blk cannot be nil"},
    {"RegExpThatDoesNotCompile",
     [](ZPKErrorPtr* error) { return createRegExpTransformer("a(b", error); },
     "createRegExpTransformer", 3, "Invalid ZSRegularExpression pattern string"},
    {"RegExpNull", [](ZPKErrorPtr* error) { return createRegExpTransformer(std::nullopt, error); },
     "createRegExpTransformer", 3, "Invalid ZSRegularExpression pattern string"},
};

INSTANTIATE_TEST_SUITE_P(ZPKDataTransformerTest, RefusedCallTest, testing::ValuesIn(kRefusedCalls),
                         [](const auto& call) { return std::string(call.param.name); });

// A factory call that must succeed.
struct AcceptedCall {
  const char* name;
  std::function<ZPKDataTransformerPtr(ZPKErrorPtr* error)> call;
};

void PrintTo(const AcceptedCall& accepted, std::ostream* stream) { *stream << accepted.name; }

class AcceptedCallTest : public testing::TestWithParam<AcceptedCall> {};

TEST_P(AcceptedCallTest, CreatesATransformerAndTouchesNeitherSlotNorLog) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const ZPKDataTransformerPtr transformer = GetParam().call(&error);
  ASSERT_NE(transformer, nullptr);
  EXPECT_NE(GetParam().call(nullptr), transformer);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(AcceptedCallTest, AcceptsAnEmptyChunk) {
  const ZPKDataTransformerPtr transformer = GetParam().call(nullptr);
  const ZPKMutableDataPtr chunk = ZPKMutableData::data();
  transformer->modifyData(chunk.get());
  transformer->modifyData(chunk.get());
}

TEST_P(AcceptedCallTest, ResetsWithoutAnErrorAndDropsWhatItHolds) {
  LogCapture log;
  const ZPKDataTransformerPtr transformer = GetParam().call(nullptr);
  const ZPKDataTransformerPtr fresh = GetParam().call(nullptr);
  passed(*transformer, "\1");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(transformer->reset(&error));
  EXPECT_TRUE(transformer->reset(nullptr));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(passed(*transformer, "ab"), passed(*fresh, "ab"));
  EXPECT_THAT(log.lines(), ElementsAre());
}

const AcceptedCall kAcceptedCalls[] = {
    {"Prepending",
     [](ZPKErrorPtr* error) { return createPrependingTransformer(dataOf("<"), error); }},
    {"PrependingNothing",
     [](ZPKErrorPtr* error) { return createPrependingTransformer(ZPKData::data(), error); }},
    {"Appending",
     [](ZPKErrorPtr* error) { return createAppendingTransformer(dataOf(">"), error); }},
    {"AppendingNothing",
     [](ZPKErrorPtr* error) { return createAppendingTransformer(ZPKData::data(), error); }},
    {"Block", [](ZPKErrorPtr* error) { return createBlockTransformer(addMark, doNothing, error); }},
    {"AggregatingKeepingTheTerminator",
     [](ZPKErrorPtr* error) { return createAggregatingTransformer(dataOf("b"), false, error); }},
    {"AggregatingRemovingTheTerminator",
     [](ZPKErrorPtr* error) { return createAggregatingTransformer(dataOf("b"), true, error); }},
    {"PacketAggregator",
     [](ZPKErrorPtr* error) { return createPacketAggregatorTransformer(1, error); }},
    {"PacketAggregatorWidthEight",
     [](ZPKErrorPtr* error) { return createPacketAggregatorTransformer(8, error); }},
    {"PacketAggregatorWidthZero",
     [](ZPKErrorPtr* error) { return createPacketAggregatorTransformer(0, error); }},
    {"PacketAggregatorNegativeWidth",
     [](ZPKErrorPtr* error) { return createPacketAggregatorTransformer(-1, error); }},
    {"PacketPrepend", [](ZPKErrorPtr* error) { return createPacketPrependTransformer(1, error); }},
    {"PacketPrependWidthEight",
     [](ZPKErrorPtr* error) { return createPacketPrependTransformer(8, error); }},
    {"PacketPrependWidthZero",
     [](ZPKErrorPtr* error) { return createPacketPrependTransformer(0, error); }},
    {"PacketPrependNegativeWidth",
     [](ZPKErrorPtr* error) { return createPacketPrependTransformer(-1, error); }},
    {"Filtering",
     [](ZPKErrorPtr* error) { return createFilteringTransformer(dataOf("\1a"), error); }},
    {"EventGenerator",
     [](ZPKErrorPtr* error) {
       return createEventGeneratorTransformer(dataOf("\1a"), false, doNothing, error);
     }},
    {"Time", [](ZPKErrorPtr* error) { return createTimeTransformer(1000.0, doNothing, error); }},
    {"TimeNotANumber",
     [](ZPKErrorPtr* error) { return createTimeTransformer(std::nan(""), doNothing, error); }},
    {"RegExp", [](ZPKErrorPtr* error) { return createRegExpTransformer("b", error); }},
};

INSTANTIATE_TEST_SUITE_P(ZPKDataTransformerTest, AcceptedCallTest,
                         testing::ValuesIn(kAcceptedCalls),
                         [](const auto& call) { return std::string(call.param.name); });

TEST(ZPKDataTransformerTest, APrependingTransformerPutsItsBytesBeforeEveryChunk) {
  const auto transformer = createPrependingTransformer(dataOf("<"));
  EXPECT_THAT(passedInTurn(*transformer, {"a", "", "b"}), ElementsAre("<a", "<", "<b"));
  transformer->modifyData(nullptr);
}

TEST(ZPKDataTransformerTest, AnAppendingTransformerPutsItsBytesAfterEveryChunk) {
  const auto transformer = createAppendingTransformer(dataOf(">"));
  EXPECT_THAT(passedInTurn(*transformer, {"a", "", "b"}), ElementsAre("a>", ">", "b>"));
  transformer->modifyData(nullptr);
}

TEST(ZPKDataTransformerTest, PrependingAndAppendingNothingChangeNothing) {
  for (const auto& transformer : {createPrependingTransformer(ZPKData::data()),
                                  createAppendingTransformer(ZPKData::data())}) {
    EXPECT_THAT(passedInTurn(*transformer, {"a", ""}), ElementsAre("a", ""));
  }
}

TEST(ZPKDataTransformerTest, ThePrependedChunkStaysTheSameObject) {
  const auto transformer = createPrependingTransformer(dataOf("<"));
  const ZPKMutableDataPtr chunk = chunkOf("a");
  transformer->modifyData(chunk.get());
  EXPECT_EQ(chunk->view(), "<a");
}

TEST(ZPKDataTransformerTest, ChangingTheGivenBytesLaterDoesNotAffectATransformer) {
  const ZPKMutableDataPtr bytes = chunkOf("-");
  const auto prepending = createPrependingTransformer(bytes);
  const auto appending = createAppendingTransformer(bytes);
  const auto aggregating = createAggregatingTransformer(bytes, true);
  const auto filtering = createFilteringTransformer(bytes);
  const auto event = createEventGeneratorTransformer(bytes, true, doNothing);
  bytes->setContents(*dataOf("a"));
  EXPECT_EQ(passed(*prepending, "x"), "-x");
  EXPECT_EQ(passed(*appending, "x"), "x-");
  EXPECT_EQ(passed(*aggregating, "xa-"), "xa");
  EXPECT_EQ(passed(*filtering, "xa-"), "xa");
  EXPECT_EQ(passed(*event, "xa-"), "xa");
}

TEST(ZPKDataTransformerTest, ABlockTransformerRunsItsCallbacks) {
  int resets = 0;
  const auto transformer = createBlockTransformer(addMark, [&resets] { ++resets; });
  EXPECT_EQ(passed(*transformer, "a"), "a!");
  EXPECT_TRUE(transformer->reset());
  EXPECT_EQ(resets, 1);
}

TEST(ZPKDataTransformerTest, ABlockTransformerWithoutAResetBlockCannotBeReset) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  const auto transformer = createBlockTransformer(addMark, nullptr, &error);
  ASSERT_NE(transformer, nullptr);
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(transformer->reset(&error));
  expectFailure(error, log,
                {"zephal-communication", 6,
                 "block transformers created without a reset block cannot be reused",
                 "-[ZPIBlockDataTransformer reset:]", "ZPIBlockDataTransformer.cpp"});
}

TEST(ZPKDataTransformerTest, AnAggregatingTransformerSplitsAtItsPattern) {
  EXPECT_EQ(passed(*createAggregatingTransformer(dataOf(";"), false), "a;b"), "a;");
  EXPECT_EQ(passed(*createAggregatingTransformer(dataOf(";"), true), "a;b"), "a");
}

TEST(ZPKDataTransformerTest, ThePacketTransformersUndoEachOther) {
  const auto prepend = createPacketPrependTransformer(2);
  const auto aggregator = createPacketAggregatorTransformer(2);
  EXPECT_EQ(passed(*aggregator, passed(*prepend, "first") + passed(*prepend, "second")), "first");
  EXPECT_EQ(passed(*aggregator, ""), "second");
}

TEST(ZPKDataTransformerTest, AllWidthsAboveEightAreRejected) {
  LogCapture log;
  for (const int32_t width : {9, 64, std::numeric_limits<int32_t>::max()}) {
    EXPECT_EQ(createPacketAggregatorTransformer(width), nullptr);
    EXPECT_EQ(createPacketPrependTransformer(width), nullptr);
  }
  EXPECT_EQ(log.lines().size(), 6U);
}

TEST(ZPKDataTransformerTest, WithoutAWidthPacketsAreNeitherFramedNorReturned) {
  for (const int32_t width : {0, -1, std::numeric_limits<int32_t>::min()}) {
    EXPECT_EQ(passed(*createPacketPrependTransformer(width), "abc"), "abc");
    EXPECT_EQ(passed(*createPacketAggregatorTransformer(width), "\1abcdefghij"), "");
  }
}

// [a\r] [\nb]
TEST(ZPKDataTransformerTest, AFilteringTransformerRemovesItsPatternAcrossChunks) {
  const auto transformer = createFilteringTransformer(dataOf("\r\n"));
  EXPECT_THAT(passedInTurn(*transformer, {"a\r", "\nb", "\rc"}), ElementsAre("a", "b", "\rc"));
}

TEST(ZPKDataTransformerTest, AnEventGeneratorCallsBackAtEachOccurrence) {
  for (const bool removes : {false, true}) {
    int events = 0;
    const auto transformer =
        createEventGeneratorTransformer(dataOf("--"), removes, [&events] { ++events; });
    EXPECT_EQ(passed(*transformer, "a--b--"), removes ? "ab" : "a--b--");
    EXPECT_EQ(events, 2);
  }
}

TEST(ZPKDataTransformerTest, ATimeTransformerNeverTouchesAChunk) {
  const auto transformer = createTimeTransformer(1000.0, doNothing);
  EXPECT_THAT(passedInTurn(*transformer, {"a", "", "b"}), ElementsAre("a", "", "b"));
  transformer->modifyData(nullptr);
}

// The pause is real here; ZPIGapWatchTest tests the exact sequence with a clock that it sets.
TEST(ZPKDataTransformerTest, OnlyTheCallThatEndsAPauseRunsTheCallback) {
  int pauses = 0;
  const auto transformer = createTimeTransformer(1e-6, [&pauses] { ++pauses; });
  passed(*transformer, "a");
  EXPECT_EQ(pauses, 0);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitFor([start] {
    return std::chrono::steady_clock::now() - start > std::chrono::microseconds(10);
  }));
  EXPECT_EQ(pauses, 0);
  passed(*transformer, "");
  EXPECT_EQ(pauses, 1);
  passed(*transformer, "b");
  EXPECT_EQ(pauses, 1);
}

TEST(ZPKDataTransformerTest, AResetDoesNotEndAPause) {
  int pauses = 0;
  const auto transformer = createTimeTransformer(1e-6, [&pauses] { ++pauses; });
  passed(*transformer, "a");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(transformer->reset());
  ASSERT_TRUE(waitFor([start] {
    return std::chrono::steady_clock::now() - start > std::chrono::microseconds(10);
  }));
  passed(*transformer, "b");
  EXPECT_EQ(pauses, 1);
}

TEST(ZPKDataTransformerTest, EachTimeTransformerMeasuresForItself) {
  int pauses = 0;
  const auto first = createTimeTransformer(1e-6, [&pauses] { ++pauses; });
  const auto second = createTimeTransformer(1e-6, [&pauses] { ++pauses; });
  passed(*first, "a");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitFor([start] {
    return std::chrono::steady_clock::now() - start > std::chrono::microseconds(10);
  }));
  passed(*second, "b");
  EXPECT_EQ(pauses, 0);
}

TEST(ZPKDataTransformerTest, ARegExpTransformerHoldsBackUntilAMatch) {
  const auto transformer = createRegExpTransformer("o[k]> ");
  EXPECT_THAT(passedInTurn(*transformer, {"a", "ok> b"}), ElementsAre("", "aok> "));
}

TEST(ZPKDataTransformerTest, AnEmptyExpressionIsLegalAndMatchesEverywhere) {
  LogCapture quiet;
  const auto transformer = createRegExpTransformer("");
  ASSERT_NE(transformer, nullptr);
  EXPECT_EQ(passed(*transformer, "ab"), "ab");
}

TEST(ZPKDataTransformerTest, ABadPatternPutsTheLibrarysErrorInTheSlot) {
  LogCapture quiet;
  ZPKErrorPtr compilerError;
  ASSERT_EQ(ZPKRegex::initWithPattern("a(b", &compilerError), nullptr);
  ASSERT_NE(compilerError, nullptr);
  ZPKErrorPtr error;
  createRegExpTransformer("a(b", &error);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->domain(), compilerError->domain());
  EXPECT_EQ(error->code(), 3);
}

}  // namespace
