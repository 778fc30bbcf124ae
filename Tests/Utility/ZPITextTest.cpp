#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Utility/ZPIText.h"

namespace {

// RFC 3629, section 4, straight from its definition: decode, then check that encoding yields the
// same bytes again.
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

// The code point whose bits are in `sequence`, well formed or not.
uint32_t decoded(std::string_view sequence) {
  const uint32_t leadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  uint32_t codePoint = static_cast<uint8_t>(sequence[0]) & leadBits[sequence.size()];
  for (const char byte : sequence.substr(1)) {
    codePoint = codePoint << 6 | (static_cast<uint8_t>(byte) & 0x3F);
  }
  return codePoint;
}

size_t plainSequenceLength(std::string_view text) {
  for (size_t length = 1; length <= std::min<size_t>(text.size(), 4); ++length) {
    const uint32_t codePoint = decoded(text.substr(0, length));
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (isSurrogate || codePoint > 0x10FFFF) continue;
    if (text.starts_with(encoded(codePoint)) && encoded(codePoint).size() == length) return length;
  }
  return 0;
}

// The check without words or blocks, one sequence at a time.
bool isPlainlyValid(std::string_view text) {
  while (!text.empty()) {
    const size_t length = plainSequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

// Checks at each of eight alignments, so that the words begin everywhere in the text. The bytes
// around it are not UTF-8, so a check that reads one of them fails.
void expectPlainResult(const std::string& text) {
  const bool expected = isPlainlyValid(text);
  for (size_t alignment = 0; alignment < 8; ++alignment) {
    const std::string around = std::string(8 + alignment, '\xFF') + text + std::string(8, '\xFF');
    const auto view = std::string_view(around).substr(8 + alignment, text.size());
    ASSERT_EQ(ZPIIsValidUTF8(view), expected) << testing::PrintToString(text) << alignment;
  }
}

TEST(ZPITextTest, EveryCodePointExceptASurrogateIsValid) {
  for (uint32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    ASSERT_EQ(ZPIIsValidUTF8(encoded(codePoint)), !isSurrogate) << codePoint;
  }
}

TEST(ZPITextTest, AllBytesButTheFirstAreContinuations) {
  for (const uint32_t codePoint :
       {0x0U, 0x7FU, 0x80U, 0x7FFU, 0x800U, 0xFFFFU, 0x10000U, 0x10FFFFU}) {
    const std::string text = encoded(codePoint);
    EXPECT_FALSE(ZPIIsContinuationByte(text.front())) << codePoint;
    for (const char byte : text.substr(1)) EXPECT_TRUE(ZPIIsContinuationByte(byte)) << codePoint;
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

TEST(ZPITextTest, ATruncatedSequenceIsInvalid) {
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

TEST(ZPITextTest, EmptyTextAndANulAreValid) {
  EXPECT_TRUE(ZPIIsValidUTF8({}));
  EXPECT_TRUE(ZPIIsValidUTF8(""));
  EXPECT_TRUE(ZPIIsValidUTF8(std::string_view("a\0b", 3)));
}

// ASCII is checked in blocks, so the invalid byte is put at each position of several blocks.
TEST(ZPITextTest, AnInvalidByteIsFoundAnywhereInALongText) {
  for (size_t at = 0; at < 130; ++at) {
    std::string text(130, 'a');
    text[at] = '\x80';
    EXPECT_FALSE(ZPIIsValidUTF8(text)) << at;
    text.replace(at, 1, "\xE2\x82\xAC");
    EXPECT_TRUE(ZPIIsValidUTF8(text)) << at;
  }
}

TEST(ZPITextTest, EverySequenceIsCheckedAnywhereInTextsOfEveryLength) {
  // Well formed; lone continuations; truncated; overlong; surrogates; too large; never a lead.
  const std::vector<std::string> sequences{"a",
                                           "\xC3\xA9",
                                           "\xE2\x82\xAC",
                                           "\xF0\x9F\x98\x80",
                                           "\x80",
                                           "\xBF\xBF",
                                           "\xC3",
                                           "\xE2\x82",
                                           "\xE2",
                                           "\xF0\x9F\x98",
                                           "\xF0\x9F",
                                           "\xC1\xBF",
                                           "\xE0\x9F\xBF",
                                           "\xF0\x8F\xBF\xBF",
                                           "\xED\xA0\x80",
                                           "\xED\xBF\xBF",
                                           "\xF4\x90\x80\x80",
                                           "\xF8\x88\x80\x80\x80",
                                           "\xFF"};
  for (size_t length = 0; length <= 44; ++length) {
    for (const std::string& sequence : sequences) {
      for (size_t at = 0; at + sequence.size() <= length; ++at) {
        std::string text(length, 'a');
        expectPlainResult(text.replace(at, sequence.size(), sequence));
      }
    }
  }
}

TEST(ZPITextTest, RandomBytesAgreeWithTheCheckOneByOne) {
  constexpr std::string_view kBytes = "aaaaaaaa\x80\x9F\xA0\xAC\xBF\xC2\xE0\xE2\xED\xF0\xF4";
  std::mt19937 random(12);
  for (int round = 0; round < 20'000; ++round) {
    std::string text;
    for (size_t i = random() % 50; i > 0; --i) {
      const bool isWhole = random() % 4 != 0;
      text += isWhole ? encoded(std::vector<uint32_t>{0x41, 0xE9, 0x20AC, 0x1F600}[random() % 4])
                      : std::string(1, kBytes[random() % kBytes.size()]);
      if (random() % 20 == 0) text += std::string(random() % 40, 'b');
    }
    expectPlainResult(text);
  }
}

TEST(ZPITextTest, CodePointsAreCountedWhateverTheirLength) {
  EXPECT_EQ(ZPICodePointCount(""), 0U);
  EXPECT_EQ(ZPICodePointCount("abc"), 3U);
  EXPECT_EQ(ZPICodePointCount("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z"), 5U);
}

TEST(ZPITextTest, OffsetsPointToTheFirstByte) {
  constexpr std::string_view text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  const std::vector<size_t> starts = {0, 1, 3, 6, 10, 11};
  for (size_t index = 0; index < starts.size(); ++index) {
    EXPECT_EQ(ZPIByteOffsetOfCodePoint(text, index), starts[index]);
  }
  EXPECT_EQ(ZPIByteOffsetOfCodePoint(text, 6), text.size());
  EXPECT_EQ(ZPIByteOffsetOfCodePoint(text, ZPKNotFound), text.size());
  EXPECT_EQ(ZPIByteOffsetOfCodePoint("", 0), 0U);
}

TEST(ZPITextTest, ARangeIsTruncatedAtTheEndOfTheText) {
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
