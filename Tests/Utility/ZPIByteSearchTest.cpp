#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Utility/ZPIByteSearch.h"
#include "Utility/ZPKTypes.h"

namespace {

uint64_t find(std::string_view text, std::string_view needle) {
  return ZPIFindBytes(reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                      reinterpret_cast<const uint8_t*>(needle.data()), needle.size());
}

uint64_t naiveFind(std::string_view text, std::string_view needle) {
  if (needle.empty()) return ZPKNotFound;
  for (size_t at = 0; at + needle.size() <= text.size(); ++at) {
    if (text.substr(at, needle.size()) == needle) return at;
  }
  return ZPKNotFound;
}

std::string randomText(std::mt19937& random, size_t length, unsigned letters) {
  std::string text(length, '\0');
  for (char& letter : text) letter = static_cast<char>('a' + random() % letters);
  return text;
}

TEST(ZPIByteSearchTest, ItFindsTheFirstOccurrence) {
  EXPECT_EQ(find("abcabc", "abc"), 0U);
  EXPECT_EQ(find("xabcabc", "abc"), 1U);
  EXPECT_EQ(find("aab", "ab"), 1U);
  EXPECT_EQ(find("abc", "abc"), 0U);
  EXPECT_EQ(find("xxabc", "abc"), 2U);
}

TEST(ZPIByteSearchTest, AMissingNeedleIsNotFound) {
  EXPECT_EQ(find("abcabd", "abe"), ZPKNotFound);
  EXPECT_EQ(find("abc", "x"), ZPKNotFound);
  EXPECT_EQ(find("xxab", "abc"), ZPKNotFound);
}

TEST(ZPIByteSearchTest, AnEmptyNeedleIsNeverFound) {
  EXPECT_EQ(find("abc", ""), ZPKNotFound);
  EXPECT_EQ(find("", ""), ZPKNotFound);
}

TEST(ZPIByteSearchTest, ANeedleLongerThanTheTextIsNotFound) {
  EXPECT_EQ(find("ab", "abc"), ZPKNotFound);
  EXPECT_EQ(find("", "a"), ZPKNotFound);
  EXPECT_EQ(ZPIFindBytes(nullptr, 0, reinterpret_cast<const uint8_t*>("a"), 1), ZPKNotFound);
}

TEST(ZPIByteSearchTest, ZeroAndHighBytesAreBytesLikeAnyOther) {
  const std::string text("a\0\xff\0\xff\xfe z", 8);
  EXPECT_EQ(find(text, std::string_view("\0\xff\xfe", 3)), 3U);
  EXPECT_EQ(find(text, std::string_view("\0", 1)), 1U);
  EXPECT_EQ(find(text, "\xfe"), 5U);
}

TEST(ZPIByteSearchTest, BytesAfterTheTextAreNotExamined) {
  const std::string text =
      "xxab"
      "c";
  EXPECT_EQ(find(std::string_view(text).substr(0, 4), "abc"), ZPKNotFound);
}

TEST(ZPIByteSearchTest, ItAgreesWithANaiveSearchOnRandomTexts) {
  std::mt19937 random(7);
  for (int round = 0; round < 4000; ++round) {
    const unsigned letters = 1 + static_cast<unsigned>(round) % 4;
    const std::string text = randomText(random, random() % 700, letters);
    const std::string needle = randomText(random, 1 + random() % 12, letters);
    ASSERT_EQ(find(text, needle), naiveFind(text, needle)) << text << " / " << needle;
  }
}

TEST(ZPIByteSearchTest, PartsOfTheTextAgreeWithANaiveSearch) {
  std::mt19937 random(8);
  for (int round = 0; round < 1000; ++round) {
    const std::string text = randomText(random, 1 + random() % 3000, 2 + random() % 2);
    const size_t start = random() % text.size();
    const std::string needle = text.substr(start, 1 + random() % 600);
    ASSERT_EQ(find(text, needle), naiveFind(text, needle)) << text << " / " << needle;
  }
}

// The needle's first byte is everywhere, so that the quick search gives up on the way. The needle
// is placed at each position around the point where that happens.
//
//     aaaaaaaaaa...aab...aaa
//                  ^-- start
TEST(ZPIByteSearchTest, AMatchIsFoundAtEveryPlaceAmongFalseStarts) {
  for (size_t start = 0; start < 600; ++start) {
    std::string text(640, 'a');
    text[start + 2] = 'b';
    EXPECT_EQ(find(text, "aab"), start);
    text.resize(start + 3);
    EXPECT_EQ(find(text, "aab"), start);
    text.pop_back();
    EXPECT_EQ(find(text, "aab"), ZPKNotFound);
  }
}

// Around the number of false starts at which the search changes its way, for needles of each
// length.
TEST(ZPIByteSearchTest, EveryShareOfFalseStartsFindsTheSame) {
  for (size_t length = 2; length <= 12; ++length) {
    const std::string needle = "a" + std::string(length - 1, 'b');
    for (size_t distance = 1; distance <= 8 * length; ++distance) {
      std::string text;
      while (text.size() < 1000) text += "a" + std::string(distance - 1, 'x');
      ASSERT_EQ(find(text, needle), ZPKNotFound) << length << " " << distance;
      const size_t start = text.size();
      ASSERT_EQ(find(text + needle + text, needle), start) << length << " " << distance;
    }
  }
}

// A quadratic search would take about 10^12 steps here, and the test would time out.
TEST(ZPIByteSearchTest, FalseStartsEverywhereAreCheapWithALongNeedle) {
  const size_t length = size_t{8} << 20;
  const std::string text(length, 'a');
  const std::string needle = std::string(length / 2, 'a') + "b";
  EXPECT_EQ(find(text, needle), ZPKNotFound);
  EXPECT_EQ(find(text + "b", needle), length - length / 2);
}

// One false start in 32 bytes, each of which agrees with almost the whole needle.
TEST(ZPIByteSearchTest, ALongNeedleWithTheTextsPeriodIsCheap) {
  std::string text;
  while (text.size() < size_t{8} << 20) text += "a" + std::string(32, 'x');
  const std::string needle = text.substr(0, text.size() / 2) + "b";
  EXPECT_EQ(find(text, needle), ZPKNotFound);
}

}  // namespace
