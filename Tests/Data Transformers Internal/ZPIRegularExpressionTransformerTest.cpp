#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Transformers Internal/ZPIRegularExpressionTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/RegexSearches.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPIRangeEnd.h"

using namespace support;

namespace {

using testing::ElementsAre;

const std::string kNotice =
    "ZPIRegularExpressionTransformer: more than one match found, will use the last match as the "
    "demarcation";

ZPIRegularExpressionTransformerPtr holdingUntil(const char* pattern) {
  return ZPIRegularExpressionTransformer::initWithRegularExpression(
      ZPKRegex::initWithPattern(pattern));
}

// A reference implementation of modifyData for ASCII, step by step.
std::string plainModifyData(std::string& buffer, const ZPKRegex& regex, const std::string& chunk) {
  buffer += chunk;
  const std::vector<ZPKRegexMatch> matches = regex.allMatches(buffer);
  if (matches.empty()) return "";
  const size_t end = ZPIRangeEnd(matches.back().range());
  const std::string result = buffer.substr(0, end);
  if (buffer.size() > end) buffer = buffer.substr(end);
  return result;
}

// [no en] [d yet] [ok> rest] []
TEST(ZPIRegularExpressionTransformerTest, BytesWaitForAMatchAndPassUpToIt) {
  const auto transformer = holdingUntil("ok> ");
  EXPECT_THAT(passedInTurn(*transformer, {"no en", "d yet", "ok> rest", ""}),
              ElementsAre("", "", "no end yetok> ", ""));
  EXPECT_EQ(passed(*transformer, " ok> x"), "rest ok> ");
}

// [ab> c] split in every possible way: [ab>][ c], [a][b][>]... and so on.
TEST(ZPIRegularExpressionTransformerTest, EverySplitOfTheSameBytesGivesTheSameUnit) {
  for (const Chunks& chunks : everySplit("ab> c")) {
    const auto transformer = holdingUntil("b> (?=c)");
    EXPECT_EQ(joined(passedInTurn(*transformer, chunks)), "ab> ") << pictureOf(chunks);
  }
}

TEST(ZPIRegularExpressionTransformerTest, TheSecondMatchEndsTheResultAndLogsOneNotice) {
  LogCapture log;
  const auto transformer = holdingUntil(";");
  EXPECT_EQ(passed(*transformer, "a;b;c"), "a;b;");
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{1, kNotice}));
  EXPECT_EQ(passed(*transformer, ""), "");
  EXPECT_EQ(passed(*transformer, ";x"), "c;");
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(ZPIRegularExpressionTransformerTest, ThreeMatchesLogOneNotice) {
  LogCapture log;
  EXPECT_EQ(passed(*holdingUntil(";"), "a;b;c;d"), "a;b;c;");
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{1, kNotice}));
}

TEST(ZPIRegularExpressionTransformerTest, AMatchThatEndsTheBufferIsReturnedEveryTime) {
  const auto transformer = holdingUntil("> ");
  EXPECT_EQ(passed(*transformer, "a> "), "a> ");
  EXPECT_EQ(passed(*transformer, ""), "a> ");
  LogCapture log;
  EXPECT_EQ(passed(*transformer, "b> "), "a> b> ");
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{1, kNotice}));
  EXPECT_EQ(passed(*transformer, "c"), "a> b> ");
  EXPECT_EQ(passed(*transformer, "> d"), "c> ");
}

TEST(ZPIRegularExpressionTransformerTest, OnlyResetClearsAMatchThatEndsTheBuffer) {
  const auto transformer = holdingUntil("> ");
  passed(*transformer, "a> ");
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(transformer->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(passed(*transformer, ""), "");
  EXPECT_EQ(passed(*transformer, "b> "), "b> ");
}

// "é" is one character and two bytes, so the cut after "éé> " falls two bytes short.
TEST(ZPIRegularExpressionTransformerTest, PositionsInCharactersServeAsByteOffsets) {
  const auto transformer = holdingUntil("> ");
  EXPECT_EQ(passed(*transformer, "\xC3\xA9\xC3\xA9> "), "\xC3\xA9\xC3\xA9");
  EXPECT_EQ(passed(*transformer, ""), "> ");
}

TEST(ZPIRegularExpressionTransformerTest, ACutWithinACharacterLeavesBytesThatMatchNothing) {
  const auto transformer = holdingUntil("> ");
  EXPECT_EQ(passed(*transformer, "ab> \xC3\xA9> "), "ab> \xC3\xA9>");
  EXPECT_EQ(passed(*transformer, "c> x"), " c> ");
  const auto cutInside = holdingUntil("\xC3\xA9");
  EXPECT_EQ(passed(*cutInside, "\xC3\xA9"), "\xC3");
  EXPECT_EQ(passed(*cutInside, "\xC3\xA9"), "");
}

TEST(ZPIRegularExpressionTransformerTest, InvalidUTF8IsHeldUntilReset) {
  const auto transformer = holdingUntil("a");
  EXPECT_EQ(passed(*transformer, "\xFF"), "");
  EXPECT_EQ(passed(*transformer, "aaa"), "");
  transformer->reset();
  EXPECT_EQ(passed(*transformer, "ab"), "a");
}

// [a> \xC3] [\xA9]
TEST(ZPIRegularExpressionTransformerTest, ASplitCharacterHoldsTheBytesUntilItIsWhole) {
  const auto transformer = holdingUntil("> ");
  EXPECT_EQ(passed(*transformer, "a> \xC3"), "");
  EXPECT_EQ(passed(*transformer, "\xA9"), "a> ");
}

TEST(ZPIRegularExpressionTransformerTest, AnEmptyMatchReturnsNothingAndKeepsTheBytes) {
  const auto transformer = holdingUntil("^");
  EXPECT_EQ(passed(*transformer, "abc"), "");
  EXPECT_EQ(passed(*transformer, ""), "");
  EXPECT_EQ(passed(*holdingUntil("$"), ""), "");
  EXPECT_EQ(passed(*holdingUntil("$"), "abc"), "abc");
}

TEST(ZPIRegularExpressionTransformerTest, ANullChunkChangesNothingEvenWithAMatchHeld) {
  LogCapture log;
  const auto transformer = holdingUntil("> ");
  passed(*transformer, "a> ");
  transformer->modifyData(nullptr);
  EXPECT_EQ(passed(*transformer, ""), "a> ");
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST(ZPIRegularExpressionTransformerTest, DeviceDataIsNeverAFormatString) {
  LogCapture log;
  const auto transformer = holdingUntil("%n");
  EXPECT_EQ(passed(*transformer, "%s%n%@%n%d"), "%s%n%@%n");
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{1, kNotice}));
}

// How often the held bytes are searched for an empty chunk that follows the given one.
size_t searchesOfAPoll(const char* pattern, const char* bytes) {
  const auto transformer = holdingUntil(pattern);
  passed(*transformer, bytes);
  const size_t before = regexSearches();
  passed(*transformer, "");
  return regexSearches() - before;
}

TEST(ZPIRegularExpressionTransformerTest, UnchangedHeldBytesAreNotSearchedAgain) {
  LogCapture quiet;
  EXPECT_EQ(searchesOfAPoll("(a+)+$", "aaaaaaaaaaaaaaaaaaaaaaaaaaaa!"), 0U);
  EXPECT_EQ(searchesOfAPoll("> ", "a> "), 0U);
  EXPECT_EQ(searchesOfAPoll("> ", "a> b> "), 0U);
  EXPECT_EQ(searchesOfAPoll("> ", ""), 0U);
  EXPECT_EQ(searchesOfAPoll("^", "abc"), 0U);
  // The bytes returned here are no longer held.
  EXPECT_EQ(searchesOfAPoll("> ", "a> b"), 1U);
}

TEST(ZPIRegularExpressionTransformerTest, APollRepeatsTheLastResultAndItsLogLine) {
  LogCapture log;
  const auto transformer = holdingUntil("> ");
  for (int poll = 0; poll < 3; ++poll) {
    EXPECT_EQ(passed(*transformer, poll == 0 ? "a> b> " : ""), "a> b> ");
  }
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{1, kNotice}, LogLine{1, kNotice}, LogLine{1, kNotice}));
  transformer->reset();
  EXPECT_EQ(passed(*transformer, ""), "");
  EXPECT_EQ(passed(*transformer, "c> "), "c> ");
}

size_t allocationsFor(size_t matches) {
  const auto transformer = holdingUntil("(;)");
  const ZPKMutableDataPtr data = ZPKMutableData::data();
  for (size_t i = 0; i < matches; ++i) data->append(";.", 2);
  SystemCalls calls;
  transformer->modifyData(data.get());
  return calls.allocations();
}

TEST(ZPIRegularExpressionTransformerTest, ManyMatchesTakeNoMoreMemoryThanFew) {
  LogCapture quiet;
  EXPECT_EQ(allocationsFor(20'000), allocationsFor(1'000));
}

TEST(ZPIRegularExpressionTransformerTest, EveryCallMatchesTheReferenceImplementation) {
  LogCapture quiet;
  std::mt19937 random(33);
  for (const char* pattern : {"ab", "a+b?", "b$", "(a|bb)c", "b*"}) {
    const ZPKRegexPtr regex = ZPKRegex::initWithPattern(pattern);
    for (int round = 0; round < 50; ++round) {
      const auto transformer = ZPIRegularExpressionTransformer::initWithRegularExpression(regex);
      std::string plainBuffer;
      for (int call = 0; call < 20; ++call) {
        const std::string chunk = random() % 4 == 0 ? "" : randomText(random, "abc", 5);
        ASSERT_EQ(passed(*transformer, chunk), plainModifyData(plainBuffer, *regex, chunk))
            << "pattern " << pattern << " chunk " << chunk;
      }
    }
  }
}

}  // namespace
