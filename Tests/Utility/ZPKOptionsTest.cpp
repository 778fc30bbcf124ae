#include <gtest/gtest.h>

#include <limits>

#include "Utility/ZPKOptions.h"

namespace {

constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();
constexpr int64_t kHighest = std::numeric_limits<int64_t>::max();

TEST(ZPKOptionsTest, ANewDictionaryIsEmpty) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  EXPECT_EQ(options->size(), 0U);
  EXPECT_EQ(options->get("key"), std::nullopt);
  EXPECT_EQ(options->number("key"), std::nullopt);
  EXPECT_EQ(options->string("key"), std::nullopt);
}

TEST(ZPKOptionsTest, NumbersAndStringsKeepTheirKinds) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("baud", 9600);
  options->set("mode", "7E1");
  options->set("lock", true);
  EXPECT_EQ(options->get("baud"), ZPKOptions::Value(ZPKNumber(9600)));
  EXPECT_EQ(options->get("mode"), ZPKOptions::Value("7E1"));
  EXPECT_TRUE(std::get<ZPKNumber>(*options->get("lock")).isBool());
  EXPECT_EQ(options->size(), 3U);
}

TEST(ZPKOptionsTest, AnEmptyStringIsAValue) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("mode", "");
  EXPECT_EQ(options->string("mode"), "");
  EXPECT_EQ(options->number("mode"), 0);
}

TEST(ZPKOptionsTest, AStringIsReadAsADecimalInteger) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("baud", "115200 bit/s");
  EXPECT_EQ(options->number("baud"), 115200);
  EXPECT_EQ(options->string("baud"), "115200 bit/s");
}

TEST(ZPKOptionsTest, ANumberIsShownAsAString) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("integer", -7);
  options->set("double", 1000000.0);
  options->set("bool", true);
  EXPECT_EQ(options->string("integer"), "-7");
  EXPECT_EQ(options->string("double"), "1000000");
  EXPECT_EQ(options->string("bool"), "1");
  EXPECT_EQ(options->number("double"), 1000000);
}

TEST(ZPKOptionsTest, AViewOfTextIsAString) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  const std::string_view text = std::string_view("7E1 and more").substr(0, 3);
  options->set("view", text);
  options->set("string", std::string("8N1"));
  options->set("literal", "8N2");
  EXPECT_EQ(options->get("view"), ZPKOptions::Value("7E1"));
  EXPECT_EQ(options->get("string"), ZPKOptions::Value("8N1"));
  EXPECT_EQ(options->get("literal"), ZPKOptions::Value("8N2"));
}

TEST(ZPKOptionsTest, ABoolIsANumberOrAWord) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  EXPECT_EQ(options->boolean("missing"), std::nullopt);
  for (const ZPKNumber& number : {ZPKNumber(true), ZPKNumber(1), ZPKNumber(-0.5)}) {
    options->set("key", number);
    EXPECT_EQ(options->boolean("key"), true) << number.stringValue();
  }
  for (const ZPKNumber& number : {ZPKNumber(false), ZPKNumber(0), ZPKNumber(0.0)}) {
    options->set("key", number);
    EXPECT_EQ(options->boolean("key"), false) << number.stringValue();
  }
  for (const char* const text :
       {"true", "TRUE", "tRuE", "yes", "Yes", "1", "2", "-1", " 1", "1x"}) {
    options->set("key", text);
    EXPECT_EQ(options->boolean("key"), true) << text;
  }
  for (const char* const text :
       {"false", "no", "0", "", "on", "y", "tru", "truee", "true ", "t ue", "t~ue"}) {
    options->set("key", text);
    EXPECT_EQ(options->boolean("key"), false) << text;
  }
}

TEST(ZPKOptionsTest, SettingAKeyAgainReplacesItsValue) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("key", 1);
  options->set("key", "text");
  EXPECT_EQ(options->get("key"), ZPKOptions::Value("text"));
  EXPECT_EQ(options->size(), 1U);
}

TEST(ZPKOptionsTest, RemovingDropsOneKeyIfItExists) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("a", 1);
  options->set("b", 2);
  options->remove("a");
  options->remove("missing");
  EXPECT_EQ(options->get("a"), std::nullopt);
  EXPECT_EQ(options->number("b"), 2);
  EXPECT_EQ(options->size(), 1U);
}

TEST(ZPKOptionsTest, TheValuesOfAMergedDictionaryWin) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("kept", 1);
  options->set("replaced", 1);
  const ZPKOptionsPtr other = ZPKOptions::init();
  other->set("replaced", "2");
  other->set("added", 3);
  options->merge(other);
  EXPECT_EQ(options->size(), 3U);
  EXPECT_EQ(options->number("kept"), 1);
  EXPECT_EQ(options->get("replaced"), ZPKOptions::Value("2"));
  EXPECT_EQ(options->number("added"), 3);
  EXPECT_EQ(other->size(), 2U);
}

TEST(ZPKOptionsTest, MergingNullOrItselfChangesNothing) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  options->set("key", "a text that is too long to be kept within the object");
  options->merge(nullptr);
  options->merge(options);
  EXPECT_EQ(options->size(), 1U);
  EXPECT_EQ(options->string("key"), "a text that is too long to be kept within the object");
}

TEST(ZPKOptionsTest, LaterChangesToAMergedDictionaryHaveNoEffect) {
  const ZPKOptionsPtr options = ZPKOptions::init();
  const ZPKOptionsPtr other = ZPKOptions::init();
  other->set("key", 1);
  options->merge(other);
  other->set("key", 2);
  EXPECT_EQ(options->number("key"), 1);
}

TEST(ZPKIntegerFromStringTest, ItReadsDigitsWithOrWithoutASign) {
  EXPECT_EQ(ZPKIntegerFromString("0"), 0);
  EXPECT_EQ(ZPKIntegerFromString("9600"), 9600);
  EXPECT_EQ(ZPKIntegerFromString("-12"), -12);
  EXPECT_EQ(ZPKIntegerFromString("+12"), 12);
  EXPECT_EQ(ZPKIntegerFromString("007"), 7);
}

TEST(ZPKIntegerFromStringTest, LeadingWhiteSpaceIsSkipped) {
  EXPECT_EQ(ZPKIntegerFromString(" \t\n\v\f\r42"), 42);
  EXPECT_EQ(ZPKIntegerFromString(" -42"), -42);
}

TEST(ZPKIntegerFromStringTest, TheFirstOtherCharacterEndsTheNumber) {
  EXPECT_EQ(ZPKIntegerFromString("12x34"), 12);
  EXPECT_EQ(ZPKIntegerFromString("1.9"), 1);
  EXPECT_EQ(ZPKIntegerFromString("0x10"), 0);
  EXPECT_EQ(ZPKIntegerFromString("1 2"), 1);
  EXPECT_EQ(ZPKIntegerFromString(std::string_view("1\0"
                                                  "2",
                                                  3)),
            1);
}

TEST(ZPKIntegerFromStringTest, WithoutDigitsItIsZero) {
  EXPECT_EQ(ZPKIntegerFromString(std::nullopt), 0);
  EXPECT_EQ(ZPKIntegerFromString(""), 0);
  EXPECT_EQ(ZPKIntegerFromString("   "), 0);
  EXPECT_EQ(ZPKIntegerFromString("-"), 0);
  EXPECT_EQ(ZPKIntegerFromString("+-5"), 0);
  EXPECT_EQ(ZPKIntegerFromString("- 5"), 0);
  EXPECT_EQ(ZPKIntegerFromString("fast"), 0);
}

TEST(ZPKIntegerFromStringTest, NumbersAtTheEndsOfTheRangeAreExact) {
  EXPECT_EQ(ZPKIntegerFromString("9223372036854775806"), kHighest - 1);
  EXPECT_EQ(ZPKIntegerFromString("9223372036854775807"), kHighest);
  EXPECT_EQ(ZPKIntegerFromString("-9223372036854775807"), kLowest + 1);
  EXPECT_EQ(ZPKIntegerFromString("-9223372036854775808"), kLowest);
}

TEST(ZPKIntegerFromStringTest, LargerNumbersAreClampedToTheRange) {
  EXPECT_EQ(ZPKIntegerFromString("9223372036854775808"), kHighest);
  EXPECT_EQ(ZPKIntegerFromString("9223372036854775810"), kHighest);
  EXPECT_EQ(ZPKIntegerFromString("-9223372036854775809"), kLowest);
  EXPECT_EQ(ZPKIntegerFromString("18446744073709551616"), kHighest);
  EXPECT_EQ(ZPKIntegerFromString(std::string(1 << 20, '9')), kHighest);
  EXPECT_EQ(ZPKIntegerFromString("-" + std::string(1 << 20, '9')), kLowest);
}

}  // namespace
