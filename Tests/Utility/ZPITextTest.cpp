#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Utility/ZPIText.h"

namespace {

// RFC 3629, section 4, written out from its definition: decode, then look whether encoding gives
// the same bytes back.
std::string encoded(uint32_t codePoint) {
  const auto byte = [](uint32_t value) { return static_cast<char>(value); };
  if (codePoint < 0x80) return {byte(codePoint)};
  if (codePoint < 0x800) return {byte(0xC0 | codePoint >> 6), byte(0x80 | (codePoint & 0x3F))};
  if (codePoint < 0x10000) {
    return {byte(0xE0 | codePoint >> 12), byte(0x80 | (codePoint >> 6 & 0x3F)),
            byte(0x80 | (codePoint & 0x3F))};
  }
  return {byte(0xF0 | codePoint >> 18), byte(0x80 | (codePoint >> 12 & 0x3F)),
          byte(0x80 | (codePoint >> 6 & 0x3F)), byte(0x80 | (codePoint & 0x3F))};
}

TEST(ZPITextTest, TheEncodingOfEveryCodePointIsValidButThatOfASurrogate) {
  for (uint32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    ASSERT_EQ(ZPIIsValidUTF8(encoded(codePoint)), !isSurrogate) << codePoint;
  }
}

TEST(ZPITextTest, NothingAboveTheLastCodePointIsValid) {
  for (uint32_t codePoint = 0x110000; codePoint < 0x200000; codePoint += 0x3FF) {
    ASSERT_FALSE(ZPIIsValidUTF8(encoded(codePoint))) << codePoint;
  }
  EXPECT_FALSE(ZPIIsValidUTF8("\xF5\x80\x80\x80"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xF8\x88\x80\x80\x80"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xFE"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xFF"));
}

TEST(ZPITextTest, OverlongFormsAreInvalid) {
  EXPECT_FALSE(ZPIIsValidUTF8("\xC0\x80"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xC1\xBF"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xE0\x80\x80"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xE0\x9F\xBF"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xF0\x80\x80\x80"));
  EXPECT_FALSE(ZPIIsValidUTF8("\xF0\x8F\xBF\xBF"));
}

TEST(ZPITextTest, ASequenceCutShortIsInvalid) {
  for (const uint32_t codePoint : {0xE9U, 0x20ACU, 0x1F600U}) {
    const std::string whole = encoded(codePoint);
    for (size_t length = 1; length < whole.size(); ++length) {
      EXPECT_FALSE(ZPIIsValidUTF8(whole.substr(0, length)));
      EXPECT_FALSE(ZPIIsValidUTF8(whole.substr(0, length) + "a"));
      EXPECT_FALSE(ZPIIsValidUTF8(whole.substr(0, length) + whole));
      EXPECT_FALSE(ZPIIsValidUTF8(whole.substr(length)));
    }
  }
}

TEST(ZPITextTest, EmptyTextIsValidAndSoIsANul) {
  EXPECT_TRUE(ZPIIsValidUTF8({}));
  EXPECT_TRUE(ZPIIsValidUTF8(""));
  EXPECT_TRUE(ZPIIsValidUTF8(std::string_view("a\0b", 3)));
}

// ASCII is looked at in blocks, so the odd byte stands at each place of some blocks.
TEST(ZPITextTest, AnInvalidByteIsSeenAtEveryPlaceOfALongText) {
  for (size_t at = 0; at < 130; ++at) {
    std::string text(130, 'a');
    text[at] = '\x80';
    EXPECT_FALSE(ZPIIsValidUTF8(text)) << at;
    text.replace(at, 1, "\xE2\x82\xAC");
    EXPECT_TRUE(ZPIIsValidUTF8(text)) << at;
  }
}

TEST(ZPITextTest, CodePointsAreCountedWhateverTheirLength) {
  EXPECT_EQ(ZPICodePointCount(""), 0U);
  EXPECT_EQ(ZPICodePointCount("abc"), 3U);
  EXPECT_EQ(ZPICodePointCount("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z"), 5U);
}

TEST(ZPITextTest, OffsetsAreThoseOfTheFirstByte) {
  constexpr std::string_view text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  const std::vector<size_t> starts = {0, 1, 3, 6, 10, 11};
  for (size_t index = 0; index < starts.size(); ++index) {
    EXPECT_EQ(ZPIByteOffsetOfCodePoint(text, index), starts[index]);
  }
  EXPECT_EQ(ZPIByteOffsetOfCodePoint(text, 6), text.size());
  EXPECT_EQ(ZPIByteOffsetOfCodePoint(text, ZPKNotFound), text.size());
  EXPECT_EQ(ZPIByteOffsetOfCodePoint("", 0), 0U);
}

TEST(ZPITextTest, ARangeIsCutAtTheEndOfTheText) {
  constexpr std::string_view text = "a\xC3\xA9\xE2\x82\xAC";
  EXPECT_EQ(ZPITextInRange(text, {0, 3}), text);
  EXPECT_EQ(ZPITextInRange(text, {1, 1}), "\xC3\xA9");
  EXPECT_EQ(ZPITextInRange(text, {2, 9}), "\xE2\x82\xAC");
  EXPECT_EQ(ZPITextInRange(text, {0, ZPKNotFound}), text);
  EXPECT_EQ(ZPITextInRange(text, {1, 0}), "");
  EXPECT_EQ(ZPITextInRange(text, {3, 1}), "");
  EXPECT_EQ(ZPITextInRange(text, {4, 1}), "");
  EXPECT_EQ(ZPITextInRange(text, {ZPKNotFound, 1}), "");
}

TEST(ZPITextTest, CountAndOffsetAgreeOnRandomTexts) {
  std::mt19937 random(11);
  for (int round = 0; round < 200; ++round) {
    std::string text;
    std::vector<size_t> starts;
    for (size_t i = random() % 60; i > 0; --i) {
      starts.push_back(text.size());
      text += encoded(std::vector<uint32_t>{0x41, 0xE9, 0x20AC, 0x1F600}[random() % 4]);
    }
    ASSERT_TRUE(ZPIIsValidUTF8(text));
    ASSERT_EQ(ZPICodePointCount(text), starts.size());
    for (size_t i = 0; i < starts.size(); ++i) {
      ASSERT_EQ(ZPIByteOffsetOfCodePoint(text, i), starts[i]);
    }
  }
}

}  // namespace
