#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Data Channel Internal/ZPICBORHead.h"

namespace {

using Bytes = ZPIHeapVector<uint8_t>;

std::string textOf(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string written(ZPICBORKind kind, uint64_t argument) {
  Bytes out;
  ZPIAppendCBORHead(kind, argument, &out);
  return textOf(out);
}

std::string bytes(std::initializer_list<int> values) {
  std::string result;
  for (const int value : values) result.push_back(static_cast<char>(value));
  return result;
}

ZPICBORHeadResult read(const std::string& input) {
  ZPICBORHead head;
  return ZPIReadCBORHead(input, &head);
}

// The numbers at which the form changes, and their encoded form; the kind in the first byte is 0.
struct Form {
  uint64_t argument;
  std::string encoded;
};

const std::vector<Form> kForms{
    {0, bytes({0})},
    {23, bytes({23})},
    {24, bytes({24, 24})},
    {255, bytes({24, 255})},
    {256, bytes({25, 1, 0})},
    {65535, bytes({25, 255, 255})},
    {65536, bytes({26, 0, 1, 0, 0})},
    {0xFFFFFFFF, bytes({26, 255, 255, 255, 255})},
    {0x100000000, bytes({27, 0, 0, 0, 1, 0, 0, 0, 0})},
    {std::numeric_limits<uint64_t>::max(), bytes({27, 255, 255, 255, 255, 255, 255, 255, 255})},
};

TEST(ZPICBORHeadTest, NumbersAreWrittenInTheShortestForm) {
  for (const auto& [argument, encoded] : kForms) {
    EXPECT_EQ(written(ZPICBORKind::Unsigned, argument), encoded) << argument;
  }
}

TEST(ZPICBORHeadTest, TheKindIsInTheTopBits) {
  EXPECT_EQ(written(ZPICBORKind::Negative, 0), bytes({0x20}));
  EXPECT_EQ(written(ZPICBORKind::Bytes, 1), bytes({0x41}));
  EXPECT_EQ(written(ZPICBORKind::Text, 24), bytes({0x78, 24}));
  EXPECT_EQ(written(ZPICBORKind::Array, 2), bytes({0x82}));
  EXPECT_EQ(written(ZPICBORKind::Map, 256), bytes({0xB9, 1, 0}));
}

TEST(ZPICBORHeadTest, SimpleValuesAndDoublesHaveTheirOwnForms) {
  Bytes out;
  ZPIAppendCBORSimple(kZPICBORFalse, &out);
  ZPIAppendCBORSimple(kZPICBORTrue, &out);
  ZPIAppendCBORSimple(kZPICBORNull, &out);
  ZPIAppendCBORDouble(1.5, &out);
  EXPECT_EQ(textOf(out), bytes({0xF4, 0xF5, 0xF6, 0xFB, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0}));
}

TEST(ZPICBORHeadTest, WhatIsWrittenIsReadBack) {
  for (const auto& [argument, encoded] : kForms) {
    ZPICBORHead head;
    ASSERT_EQ(ZPIReadCBORHead(encoded + "more", &head), ZPICBORHeadResult::Good) << argument;
    EXPECT_EQ(head.kind, ZPICBORKind::Unsigned);
    EXPECT_EQ(head.argument, argument);
    EXPECT_EQ(head.length, encoded.size());
  }
}

TEST(ZPICBORHeadTest, EveryKindIsReadBackInEveryForm) {
  for (const auto kind : {ZPICBORKind::Unsigned, ZPICBORKind::Negative, ZPICBORKind::Bytes,
                          ZPICBORKind::Text, ZPICBORKind::Array, ZPICBORKind::Map}) {
    for (const auto& [argument, encoded] : kForms) {
      ZPICBORHead head;
      ASSERT_EQ(ZPIReadCBORHead(written(kind, argument), &head), ZPICBORHeadResult::Good);
      EXPECT_EQ(head.kind, kind);
      EXPECT_EQ(head.argument, argument);
      EXPECT_EQ(head.length, encoded.size());
    }
  }
}

// Each byte of the number has a different value, so that no two can be swapped unnoticed.
TEST(ZPICBORHeadTest, NumbersAreBigEndian) {
  for (const auto& [argument, encoded] :
       {Form{0xA1, bytes({24, 0xA1})}, Form{0xA1B2, bytes({25, 0xA1, 0xB2})},
        Form{0xA1B2C3D4, bytes({26, 0xA1, 0xB2, 0xC3, 0xD4})},
        Form{0xA1B2C3D4E5F60718, bytes({27, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0x07, 0x18})}}) {
    ZPICBORHead head;
    EXPECT_EQ(ZPIReadCBORHead(encoded, &head), ZPICBORHeadResult::Good);
    EXPECT_EQ(head.argument, argument);
    EXPECT_EQ(written(ZPICBORKind::Unsigned, argument), encoded);
  }
}

TEST(ZPICBORHeadTest, AHeadThatIsTruncatedAnywhereIsTooShort) {
  for (const auto& [argument, encoded] : kForms) {
    for (size_t length = 0; length < encoded.size(); ++length) {
      EXPECT_EQ(read(encoded.substr(0, length)), ZPICBORHeadResult::TooShort) << argument;
    }
  }
  EXPECT_EQ(read(bytes({0xFB, 0, 0, 0, 0, 0, 0, 0})), ZPICBORHeadResult::TooShort);
}

TEST(ZPICBORHeadTest, ANumberInANeedlesslyLongFormIsNotCanonical) {
  EXPECT_EQ(read(bytes({24, 23})), ZPICBORHeadResult::NotCanonical);
  EXPECT_EQ(read(bytes({25, 0, 255})), ZPICBORHeadResult::NotCanonical);
  EXPECT_EQ(read(bytes({26, 0, 0, 255, 255})), ZPICBORHeadResult::NotCanonical);
  EXPECT_EQ(read(bytes({27, 0, 0, 0, 0, 255, 255, 255, 255})), ZPICBORHeadResult::NotCanonical);
}

TEST(ZPICBORHeadTest, ReservedAndIndefiniteFormsAreNotAllowedForAnyKind) {
  for (int kind = 0; kind < 7; ++kind) {
    for (int information = 28; information <= 31; ++information) {
      const std::string input = bytes({kind << 5 | information, 0, 0, 0, 0, 0, 0, 0, 0});
      EXPECT_EQ(read(input), ZPICBORHeadResult::NotAllowed) << kind << " " << information;
    }
  }
}

TEST(ZPICBORHeadTest, OnlyFalseTrueNullAndDoublesAreAllowedSimpleValues) {
  for (int information = 0; information < 32; ++information) {
    const bool isGood = (information >= 20 && information <= 22) || information == 27;
    EXPECT_EQ(read(bytes({0xE0 | information, 0, 0, 0, 0, 0, 0, 0, 0})),
              isGood ? ZPICBORHeadResult::Good : ZPICBORHeadResult::NotAllowed)
        << information;
  }
}

}  // namespace
