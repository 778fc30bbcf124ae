#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>

#include "Utility/ZPKNumber.h"
#include "ZephalLogging.h"

namespace {

constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();
constexpr int64_t kHighest = std::numeric_limits<int64_t>::max();
constexpr uint64_t kHighestUnsigned = std::numeric_limits<uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

std::string text(ZPKNumber number) { return number.stringValue(); }

TEST(ZPKNumberTest, ItConvertsImplicitlyFromEveryKindOfNumber) {
  const auto isInteger = [](ZPKNumber number) { return number.isInteger(); };
  EXPECT_TRUE(isInteger(1));
  EXPECT_TRUE(isInteger(short{-1}));
  EXPECT_TRUE(isInteger(1U));
  EXPECT_TRUE(isInteger(kLowest));
  EXPECT_TRUE(isInteger(kHighestUnsigned));
  EXPECT_FALSE(isInteger(1.0));
  EXPECT_FALSE(isInteger(1.0F));
  EXPECT_FALSE(isInteger(true));
  EXPECT_TRUE(ZPKNumber(0.5).isDouble());
  EXPECT_TRUE(ZPKNumber(false).isBool());
  EXPECT_FALSE(ZPKNumber(1).isBool());
}

TEST(ZPKNumberTest, WithoutAValueItIsTheIntegerZero) {
  EXPECT_TRUE(ZPKNumber().isInteger());
  EXPECT_EQ(ZPKNumber(), 0);
}

TEST(ZPKNumberTest, IntegersPrintAllTheirDigits) {
  EXPECT_EQ(text(0), "0");
  EXPECT_EQ(text(1), "1");
  EXPECT_EQ(text(-1), "-1");
  EXPECT_EQ(text(kLowest), "-9223372036854775808");
  EXPECT_EQ(text(kHighest), "9223372036854775807");
  EXPECT_EQ(text(kHighestUnsigned), "18446744073709551615");
}

TEST(ZPKNumberTest, BoolsPrintAsOneAndZero) {
  EXPECT_EQ(text(true), "1");
  EXPECT_EQ(text(false), "0");
}

TEST(ZPKNumberTest, DoublesPrintInTheShortestDecimalForm) {
  EXPECT_EQ(text(0.0), "0");
  EXPECT_EQ(text(-0.0), "-0");
  EXPECT_EQ(text(0.5), "0.5");
  EXPECT_EQ(text(2.0), "2");
  EXPECT_EQ(text(-1.0), "-1");
  EXPECT_EQ(text(0.1), "0.1");
  EXPECT_EQ(text(0.1 + 0.2), "0.30000000000000004");
  EXPECT_EQ(text(2.5F), "2.5");
}

TEST(ZPKNumberTest, DoublesOfAnEverydaySizePrintWithoutAnExponent) {
  EXPECT_EQ(text(100000.0), "100000");
  EXPECT_EQ(text(1000000.0), "1000000");
  EXPECT_EQ(text(0.0001), "0.0001");
  EXPECT_EQ(text(0.00012), "0.00012");
  EXPECT_EQ(text(9007199254740993.0), "9007199254740992");
  EXPECT_EQ(text(9999999999999998.0), "9999999999999998");
  EXPECT_EQ(text(-123456789.25), "-123456789.25");
}

TEST(ZPKNumberTest, VeryLargeAndVerySmallDoublesHaveAnExponent) {
  EXPECT_EQ(text(1e16), "1e+16");
  EXPECT_EQ(text(1e300), "1e+300");
  EXPECT_EQ(text(-1.5e-7), "-1.5e-07");
  EXPECT_EQ(text(0.00009), "9e-05");
  EXPECT_EQ(text(std::numeric_limits<double>::max()), "1.7976931348623157e+308");
  EXPECT_EQ(text(std::numeric_limits<double>::denorm_min()), "5e-324");
  EXPECT_EQ(text(kInfinity), "inf");
  EXPECT_EQ(text(-kInfinity), "-inf");
  EXPECT_EQ(text(kNotANumber), "nan");
}

TEST(ZPKNumberTest, APrintedDoubleReadsBackAsTheSameValue) {
  std::mt19937_64 random(20240501);
  for (int i = 0; i < 20000; ++i) {
    // Every second one has an everyday size, the others have any.
    const double value =
        i % 2 == 0 ? static_cast<double>(random()) / 1e9 : std::bit_cast<double>(random());
    if (!std::isfinite(value)) continue;
    const std::string printed = text(value);
    ASSERT_EQ(std::strtod(printed.c_str(), nullptr), value) << printed;
  }
}

TEST(ZPKNumberTest, ALogShowsItAsItPrints) {
  EXPECT_EQ(ZPKLoggingFormat("%@ %@", ZPKNumber(0.5), std::optional<ZPKNumber>(-1)), "0.5 -1");
  EXPECT_EQ(ZPKLoggingFormat("%@", std::optional<ZPKNumber>()), "(null)");
}

TEST(ZPKNumberTest, OnlyZeroOfAnyKindHasAFalseBoolValue) {
  EXPECT_FALSE(ZPKNumber(0).boolValue());
  EXPECT_FALSE(ZPKNumber(0U).boolValue());
  EXPECT_FALSE(ZPKNumber(0.0).boolValue());
  EXPECT_FALSE(ZPKNumber(-0.0).boolValue());
  EXPECT_FALSE(ZPKNumber(false).boolValue());
  EXPECT_TRUE(ZPKNumber(-1).boolValue());
  EXPECT_TRUE(ZPKNumber(0.25).boolValue());
  EXPECT_TRUE(ZPKNumber(true).boolValue());
  EXPECT_TRUE(ZPKNumber(kNotANumber).boolValue());
  EXPECT_TRUE(static_cast<bool>(ZPKNumber(kHighestUnsigned)));
}

TEST(ZPKNumberTest, TheDoubleValueIsTheNearest) {
  EXPECT_EQ(ZPKNumber(3).doubleValue(), 3.0);
  EXPECT_EQ(ZPKNumber(true).doubleValue(), 1.0);
  EXPECT_EQ(ZPKNumber(kLowest).doubleValue(), -kTwoTo63);
  EXPECT_EQ(ZPKNumber(kHighest).doubleValue(), kTwoTo63);
  EXPECT_EQ(ZPKNumber(kHighestUnsigned).doubleValue(), kTwoTo64);
  EXPECT_EQ(ZPKNumber(-0.5).doubleValue(), -0.5);
}

TEST(ZPKNumberTest, TheIntegerValueDropsFractions) {
  EXPECT_EQ(ZPKNumber(2.9).integerValue(), 2);
  EXPECT_EQ(ZPKNumber(-2.9).integerValue(), -2);
  EXPECT_EQ(ZPKNumber(-0.5).integerValue(), 0);
  EXPECT_EQ(ZPKNumber(true).integerValue(), 1);
  EXPECT_EQ(ZPKNumber(kLowest).integerValue(), kLowest);
}

TEST(ZPKNumberTest, TheIntegerValueStopsAtTheEndsOfItsRange) {
  EXPECT_EQ(ZPKNumber(kHighestUnsigned).integerValue(), kHighest);
  EXPECT_EQ(ZPKNumber(uint64_t{1} << 63).integerValue(), kHighest);
  EXPECT_EQ(ZPKNumber(kTwoTo63).integerValue(), kHighest);
  EXPECT_EQ(ZPKNumber(std::nextafter(kTwoTo63, 0.0)).integerValue(), 9223372036854774784);
  EXPECT_EQ(ZPKNumber(-kTwoTo63).integerValue(), kLowest);
  EXPECT_EQ(ZPKNumber(std::nextafter(-kTwoTo63, -kInfinity)).integerValue(), kLowest);
  EXPECT_EQ(ZPKNumber(1e300).integerValue(), kHighest);
  EXPECT_EQ(ZPKNumber(-kInfinity).integerValue(), kLowest);
  EXPECT_EQ(ZPKNumber(kNotANumber).integerValue(), 0);
}

TEST(ZPKNumberTest, TheUnsignedValueStopsAtTheEndsOfItsRange) {
  EXPECT_EQ(ZPKNumber(2.9).unsignedIntegerValue(), 2U);
  EXPECT_EQ(ZPKNumber(-0.9).unsignedIntegerValue(), 0U);
  EXPECT_EQ(ZPKNumber(-5.0).unsignedIntegerValue(), 0U);
  EXPECT_EQ(ZPKNumber(-kInfinity).unsignedIntegerValue(), 0U);
  EXPECT_EQ(ZPKNumber(kTwoTo64).unsignedIntegerValue(), kHighestUnsigned);
  EXPECT_EQ(ZPKNumber(std::nextafter(kTwoTo64, 0.0)).unsignedIntegerValue(), 18446744073709549568U);
  EXPECT_EQ(ZPKNumber(kNotANumber).unsignedIntegerValue(), 0U);
  EXPECT_EQ(ZPKNumber(kHighestUnsigned).unsignedIntegerValue(), kHighestUnsigned);
  EXPECT_EQ(ZPKNumber(true).unsignedIntegerValue(), 1U);
}

TEST(ZPKNumberTest, ANegativeIntegerKeepsItsBitsAsUnsigned) {
  EXPECT_EQ(ZPKNumber(-1).unsignedIntegerValue(), kHighestUnsigned);
  EXPECT_EQ(ZPKNumber(kLowest).unsignedIntegerValue(), uint64_t{1} << 63);
}

TEST(ZPKNumberTest, NumbersOfDifferentKindsAreEqualByValue) {
  EXPECT_EQ(ZPKNumber(1), ZPKNumber(1.0));
  EXPECT_EQ(ZPKNumber(1), ZPKNumber(true));
  EXPECT_EQ(ZPKNumber(true), ZPKNumber(1.0));
  EXPECT_EQ(ZPKNumber(1), ZPKNumber(1U));
  EXPECT_EQ(ZPKNumber(0), ZPKNumber(-0.0));
  EXPECT_NE(ZPKNumber(1), ZPKNumber(1.5));
  EXPECT_NE(ZPKNumber(2), ZPKNumber(true));
  EXPECT_NE(ZPKNumber(0), ZPKNumber(0.5));
  EXPECT_NE(ZPKNumber(0), ZPKNumber(-0.5));
}

TEST(ZPKNumberTest, NegativeIntegersDifferFromUnsignedOnesWithTheSameBits) {
  EXPECT_NE(ZPKNumber(-1), ZPKNumber(kHighestUnsigned));
  EXPECT_NE(ZPKNumber(kHighestUnsigned), ZPKNumber(-1));
  EXPECT_NE(ZPKNumber(kLowest), ZPKNumber(uint64_t{1} << 63));
}

TEST(ZPKNumberTest, EqualityIsExactWhereADoubleHasTooFewDigits) {
  constexpr int64_t kTwoTo53 = int64_t{1} << 53;
  EXPECT_EQ(ZPKNumber(kTwoTo53), ZPKNumber(9007199254740992.0));
  EXPECT_NE(ZPKNumber(kTwoTo53 + 1), ZPKNumber(9007199254740992.0));
  EXPECT_NE(ZPKNumber(-kTwoTo53 - 1), ZPKNumber(-9007199254740992.0));
}

TEST(ZPKNumberTest, EqualityIsExactAtTheEndsOfTheIntegerRanges) {
  EXPECT_EQ(ZPKNumber(kLowest), ZPKNumber(-kTwoTo63));
  EXPECT_NE(ZPKNumber(kHighest), ZPKNumber(kTwoTo63));
  EXPECT_EQ(ZPKNumber(uint64_t{1} << 63), ZPKNumber(kTwoTo63));
  EXPECT_NE(ZPKNumber(kHighestUnsigned), ZPKNumber(kTwoTo64));
  EXPECT_NE(ZPKNumber(kLowest), ZPKNumber(std::nextafter(-kTwoTo63, -kInfinity)));
  EXPECT_NE(ZPKNumber(kHighestUnsigned), ZPKNumber(kInfinity));
  EXPECT_NE(ZPKNumber(kLowest), ZPKNumber(-kInfinity));
  EXPECT_EQ(ZPKNumber(kInfinity), ZPKNumber(kInfinity));
}

TEST(ZPKNumberTest, NotANumberEqualsNothing) {
  EXPECT_NE(ZPKNumber(kNotANumber), ZPKNumber(kNotANumber));
  EXPECT_NE(ZPKNumber(kNotANumber), ZPKNumber(0));
  EXPECT_NE(ZPKNumber(0), ZPKNumber(kNotANumber));
}

}  // namespace
