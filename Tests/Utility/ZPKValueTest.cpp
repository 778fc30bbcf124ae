#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKString.h"
#include "Utility/ZPKValue.h"

namespace {

class Plain final : public ZPKObject {};

ZPKNumber number(const ZPKValue& value) {
  const auto object = ZPKObjectCast<ZPKNumber>(value);
  return object == nullptr ? ZPKNumber(-1) : *object;
}

std::string text(const ZPKValue& value) {
  const auto object = ZPKObjectCast<ZPKString>(value);
  return object == nullptr ? "no text" : object->value();
}

TEST(ZPKValueTest, TextOfEveryKindBecomesAString) {
  EXPECT_EQ(text("literal"), "literal");
  EXPECT_EQ(text(std::string("string")), "string");
  EXPECT_EQ(text(std::string_view("a view of").substr(2, 4)), "view");
  EXPECT_EQ(text(""), "");
}

TEST(ZPKValueTest, NumbersKeepTheirKind) {
  EXPECT_TRUE(number(true).isBool());
  EXPECT_TRUE(number(0).isInteger());
  EXPECT_TRUE(number(0.0).isDouble());
  EXPECT_TRUE(number(1.5F).isDouble());
  EXPECT_EQ(number(std::numeric_limits<int64_t>::min()).integerValue(),
            std::numeric_limits<int64_t>::min());
  EXPECT_EQ(number(std::numeric_limits<uint64_t>::max()).unsignedIntegerValue(),
            std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(number(ZPKNumber(false)).isBool());
}

TEST(ZPKValueTest, NullOfEveryKindIsANullObject) {
  EXPECT_EQ(ZPKValue(nullptr).object(), nullptr);
  EXPECT_EQ(ZPKValue(static_cast<const char*>(nullptr)).object(), nullptr);
  EXPECT_EQ(ZPKValue(ZPKDataPtr()).object(), nullptr);
  EXPECT_EQ(ZPKValue(ZPKObjectPtr()).object(), nullptr);
}

TEST(ZPKValueTest, AnObjectIsUsedUnchanged) {
  const auto plain = std::make_shared<Plain>();
  EXPECT_EQ(ZPKValue(plain).object(), plain);
  const ZPKDataPtr data = ZPKData::dataWithString("bytes");
  EXPECT_EQ(ZPKValue(data).object(), data);
}

TEST(ZPKValueTest, MutableDataIsCopied) {
  auto editable = ZPKMutableData::data();
  editable->append("before", 6);
  const ZPKValue value(editable);
  const ZPKValue valueOfConst(ZPKDataPtr{editable});
  editable->append(" and after", 10);
  EXPECT_EQ(ZPKObjectCast<ZPKData>(value)->view(), "before");
  EXPECT_EQ(ZPKObjectCast<ZPKData>(valueOfConst)->view(), "before");
  EXPECT_EQ(ZPKObjectCast<ZPKMutableData>(value), nullptr);
}

TEST(ZPKValueTest, EntriesInBracesBecomeADictionaryEvenNestedOnes) {
  const ZPKObjectPtr object = ZPKValue{{"name", "dut-7"}, {"limits", {{"low", "a"}, {"high", 2}}}};
  const auto dictionary = ZPKObjectCast<ZPKDictionary>(object);
  ASSERT_NE(dictionary, nullptr);
  EXPECT_EQ(dictionary->count(), 2U);
  const ZPKDictionaryPtr limits = dictionary->dictionary("limits");
  ASSERT_NE(limits, nullptr);
  EXPECT_EQ(limits->string("low"), "a");
  EXPECT_EQ(limits->integer("high"), 2);
}

TEST(ZPKValueTest, OneEntryOfTwoTextsIsADictionaryToo) {
  const auto dictionary = ZPKObjectCast<ZPKDictionary>(ZPKValue{{"key", "value"}});
  ASSERT_NE(dictionary, nullptr);
  EXPECT_EQ(dictionary->string("key"), "value");
}

TEST(ZPKValueTest, EmptyBracesBecomeAnEmptyDictionary) {
  const auto dictionary = ZPKObjectCast<ZPKDictionary>(ZPKValue{});
  ASSERT_NE(dictionary, nullptr);
  EXPECT_EQ(dictionary->count(), 0U);
}

}  // namespace
