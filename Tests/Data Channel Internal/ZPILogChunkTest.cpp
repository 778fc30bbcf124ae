#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPILogChunk.h"
#include "Support/ProcessorTime.h"
#include "Support/TestClock.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKDataConversionFunctions.h"

using namespace support;

namespace {

using testing::MatchesRegex;

std::string chunkOf(std::string_view bytes, std::string_view prefix = "\n|") {
  return ZPILogChunk(prefix, ZPKData::dataWithString(bytes));
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

TEST(ZPILogChunkTest, EmptyAndNullDataGiveOnlyThePrefix) {
  EXPECT_EQ(chunkOf(""), "\n|");
  EXPECT_EQ(ZPILogChunk("\n|", nullptr), "\n|");
}

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
  const std::string prefix = ZPILogPrefix("pre--write");
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

// Sets the time zone of the process during its lifetime.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    if (const char* before = std::getenv("TZ")) _before = before;
    set(zone);
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() {
    if (_before.has_value()) {
      set(_before->c_str());
    } else {
      ::unsetenv("TZ");
    }
  }

  void set(const char* zone) { ::setenv("TZ", zone, 1); }

 private:
  std::optional<std::string> _before;
};

// 2024-05-01 at noon, plus this many microseconds.
std::chrono::system_clock::time_point noonAnd(int64_t microseconds) {
  constexpr std::chrono::seconds kNoon{1714564800};
  return std::chrono::system_clock::time_point(kNoon + std::chrono::microseconds(microseconds));
}

// The time in a prefix.
std::string timeOf(const std::string& prefix) { return prefix.substr(1, 23); }

TEST(ZPILogPrefixTest, HasTheFormOfTheLog) {
  EXPECT_THAT(ZPILogPrefix("pre--write"),
              MatchesRegex("\n[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} "
                           "<pre--write>\\[" +
                           std::to_string(::getpid()) + "\\]: "));
}

TEST(ZPILogPrefixTest, CopiesTheIdentifierUnchanged) {
  for (const std::string identifier : {"", "%@ %s%n", "a<b>[c]: ", "\u00e9\n"}) {
    const std::string prefix = ZPILogPrefix(identifier);
    EXPECT_EQ(prefix.substr(24), " <" + identifier + ">[" + std::to_string(::getpid()) + "]: ");
  }
}

TEST(ZPILogPrefixTest, ShowsTheCurrentTimeInWholeMilliseconds) {
  const TimeZone zone("UTC0");
  TestClock clock;
  clock.setWallTime(noonAnd(45999));
  EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-01 12:00:00.045");
  clock.advance(std::chrono::microseconds(1));
  EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-01 12:00:00.046");
  clock.advance(std::chrono::hours(12));
  EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-02 00:00:00.046");
}

TEST(ZPILogPrefixTest, ShowsTheLocalTime) {
  const TimeZone zone("AAA-05:30");
  TestClock clock;
  clock.setWallTime(noonAnd(1000));
  // A new thread, which has not cached a second from a different zone.
  std::async(std::launch::async, [] {
    EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-01 17:30:00.001");
  }).get();
}

TEST(ZPILogPrefixTest, AChangedTimeZoneAppliesFromTheNextSecond) {
  TimeZone zone("UTC0");
  TestClock clock;
  clock.setWallTime(noonAnd(10999000));
  EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-01 12:00:10.999");
  zone.set("AAA-9");
  EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-01 12:00:10.999");
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(timeOf(ZPILogPrefix("id")), "2024-05-01 21:00:11.000");
}

TEST(ZPILogPrefixTest, NeverGoesBackWithinOneThread) {
  const TimeZone zone("UTC0");
  std::string last = ZPILogPrefix("id");
  for (int i = 0; i < 10000; ++i) {
    std::string next = ZPILogPrefix("id");
    ASSERT_LE(last, next);
    last = std::move(next);
  }
}

}  // namespace
