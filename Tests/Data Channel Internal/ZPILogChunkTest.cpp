#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPILogChunk.h"
#include "Support/ProcessorTime.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKDataConversionFunctions.h"

using namespace support;

namespace {

std::string textOf(const ZPIHeapVector<char>& log) { return {log.data(), log.size()}; }

// The chunk of bytes that need not be text.
std::string chunkOf(std::string_view bytes, std::string_view prefix = "\n|") {
  ZPIHeapVector<char> log;
  ZPIAppendLogChunk({prefix}, ZPKDataToString(ZPKData::dataWithString(bytes)), log);
  return textOf(log);
}

std::string replaceAll(std::string text, std::string_view part, std::string_view by) {
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + by.size())) {
    text.replace(at, part.size(), by);
  }
  return text;
}

// The steps of the format, one by one.
std::string chunkByTheSteps(std::string_view bytes, const std::string& prefix) {
  std::string text = ZPKDataToString(ZPKData::dataWithString(bytes));
  text = replaceAll(text, "\r\n", "\n");
  text = replaceAll(text, "\r", "\n");
  text = replaceAll(text, "\n", prefix);
  return prefix + text;
}

// --- The body.

TEST(ZPILogChunkTest, PlainTextFollowsThePrefix) { EXPECT_EQ(chunkOf("ver"), "\n|ver"); }

TEST(ZPILogChunkTest, EveryLineBreakOfAnyKindBecomesThePrefix) {
  EXPECT_EQ(chunkOf("A\r\nB\rC\n"), "\n|A\n|B\n|C\n|");
}

TEST(ZPILogChunkTest, CRLFIsOneBreakAndLFCRAreTwo) {
  EXPECT_EQ(chunkOf("A\r\nB"), "\n|A\n|B");
  EXPECT_EQ(chunkOf("A\n\rB"), "\n|A\n|\n|B");
  EXPECT_EQ(chunkOf("A\r\r\nB"), "\n|A\n|\n|B");
  EXPECT_EQ(chunkOf("A\r\n\nB"), "\n|A\n|\n|B");
}

TEST(ZPILogChunkTest, AChunkThatIsOnlyABreakIsTwoPrefixes) {
  EXPECT_EQ(chunkOf("\n"), "\n|\n|");
  EXPECT_EQ(chunkOf("\r"), "\n|\n|");
  EXPECT_EQ(chunkOf("\r\n"), "\n|\n|");
}

TEST(ZPILogChunkTest, EmptyTextGivesOnlyThePrefix) { EXPECT_EQ(chunkOf(""), "\n|"); }

TEST(ZPILogChunkTest, ValidTextStaysUnchangedWithItsControlCharacters) {
  const std::string text("\0 a\x1B[0m \t\u00e9 \xF0\x9F\x98\x80 %@ %s <>", 25);
  EXPECT_EQ(chunkOf(text), "\n|" + text);
}

TEST(ZPILogChunkTest, InvalidTextIsShownInHexadecimal) {
  EXPECT_EQ(chunkOf("ok\xFF\xFE"
                    "done\r\n\xFF"),
            "\n|ok<fffe>done\n|<ff>");
  EXPECT_EQ(chunkOf("\xFF\r\n\xFE\n\r\xFD"), "\n|<ff>\n|<fe>\n|\n|<fd>");
}

TEST(ZPILogChunkTest, OneInvalidByteMakesZeroAndAccentsHexadecimalToo) {
  EXPECT_EQ(chunkOf(std::string_view("\u00e9\0x\xFF", 5)), "\n|<c3a900>x<ff>");
}

TEST(ZPILogChunkTest, ASequenceThatTheChunkTruncatesIsNotText) {
  EXPECT_EQ(chunkOf("a\xC3"), "\n|a<c3>");
}

TEST(ZPILogChunkTest, ALineFeedInThePrefixIsLeftAlone) {
  EXPECT_EQ(chunkOf("A\nB\n", "\nid\nrest\r"), "\nid\nrest\rA\nid\nrest\rB\nid\nrest\r");
}

TEST(ZPILogChunkTest, EveryShortSequenceFollowsTheSteps) {
  constexpr std::string_view kBytes = "A\r\n\xFF";
  for (size_t length = 0; length <= 6; ++length) {
    for (size_t number = 0; number < size_t{1} << (2 * length); ++number) {
      std::string bytes;
      for (size_t i = 0; i < length; ++i) bytes += kBytes[number >> (2 * i) & 3];
      ASSERT_EQ(chunkOf(bytes), chunkByTheSteps(bytes, "\n|")) << testing::PrintToString(bytes);
    }
  }
}

TEST(ZPILogChunkTest, RandomBytesFollowTheSteps) {
  std::mt19937 random(20240501);
  const auto below = [&](size_t count) { return random() % count; };
  const std::string prefix = "\n2024-05-01 12:00:00.250 <pre--write>[4711]: ";
  constexpr std::string_view kPieces[] = {
      "\r",   "\n",   "\r\n", "plain text", "\u00e9", "<", std::string_view("\0", 1),
      "\x1B", "\xFF", "\xC3"};
  for (int i = 0; i < 3000; ++i) {
    // Half of the rows are valid text.
    const size_t choices = i % 2 == 0 ? 8 : 10;
    std::string bytes;
    for (size_t count = below(60); count > 0; --count) bytes += kPieces[below(choices)];
    ASSERT_EQ(chunkOf(bytes, prefix), chunkByTheSteps(bytes, prefix))
        << testing::PrintToString(bytes);
  }
}

// Far above the time that these lengths take, even with a sanitizer, and far below that of work
// that grows with their square.
constexpr double kSecondsOfLinearWork = 30;

TEST(ZPILogChunkTest, TheCostGrowsOnlyWithTheLength) {
  constexpr size_t kLength = 2U << 20;
  const double start = processorTime();
  EXPECT_EQ(chunkOf(std::string(kLength, 'x')).size(), 2 + kLength);
  EXPECT_EQ(chunkOf(std::string(kLength, '\n')).size(), 2 + 2 * kLength);
  EXPECT_EQ(chunkOf(std::string(kLength, '\r')).size(), 2 + 2 * kLength);
  EXPECT_EQ(chunkOf(std::string(kLength, '\xFF')).size(), 2 + 2 + 2 * kLength);
  EXPECT_LT(processorTime() - start, kSecondsOfLinearWork);
}

// --- The prefix.

TEST(ZPILogChunkTest, ThePartsOfAPrefixFollowOneAnother) {
  ZPIHeapVector<char> log;
  ZPIAppendLogChunk({"\ntime <", "id%@", ">[7]: "}, "a\nb", log);
  EXPECT_EQ(textOf(log), "\ntime <id%@>[7]: a\ntime <id%@>[7]: b");
}

TEST(ZPILogChunkTest, ChunksAreAppendedToWhatTheLogContains) {
  ZPIHeapVector<char> log;
  ZPIAppendLogChunk({"\n1|"}, "a\n", log);
  ZPIAppendLogChunk({"\n2|"}, "b\n", log);
  EXPECT_EQ(textOf(log), "\n1|a\n1|\n2|b\n2|");
}

TEST(ZPILogChunkTest, TheProcessIsBetweenBrackets) {
  EXPECT_EQ(ZPILogProcess(1), ">[1]: ");
  EXPECT_EQ(ZPILogProcess(4194304), ">[4194304]: ");
}

}  // namespace
