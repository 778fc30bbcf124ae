#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Utility/ZPKDictionary.h"

namespace {

using testing::ElementsAre;

std::vector<std::string> keys(const ZPKDictionary& dictionary) {
  std::vector<std::string> result;
  for (const auto& [key, value] : dictionary) result.push_back(key);
  return result;
}

ZPKDictionaryPtr message() {
  return ZPKDictionary::init({{"name", "dut-7"},
                              {"slot", 3},
                              {"ok", true},
                              {"volts", 3.5},
                              {"raw", ZPKData::dataWithString("ab")},
                              {"limits", {{"low", 1}}},
                              {"steps", ZPKArray::init({1, "two"})}});
}

TEST(ZPKDictionaryTest, EachGetterReturnsValuesOfItsClass) {
  const auto dictionary = message();
  EXPECT_EQ(dictionary->count(), 7U);
  EXPECT_EQ(dictionary->string("name"), "dut-7");
  EXPECT_EQ(dictionary->integer("slot"), 3);
  EXPECT_EQ(dictionary->boolean("ok"), true);
  EXPECT_EQ(dictionary->real("volts"), 3.5);
  EXPECT_EQ(dictionary->number("volts"), ZPKNumber(3.5));
  EXPECT_EQ(dictionary->data("raw")->view(), "ab");
  EXPECT_EQ(dictionary->dictionary("limits")->integer("low"), 1);
  EXPECT_EQ(dictionary->array("steps")->count(), 2U);
  EXPECT_TRUE(ZPKObjectsAreEqual(dictionary->object("slot"), ZPKValue(3)));
}

TEST(ZPKDictionaryTest, AMissingKeyIsNullForEveryGetter) {
  const auto dictionary = message();
  EXPECT_EQ(dictionary->object("none"), nullptr);
  EXPECT_EQ(dictionary->string("none"), std::nullopt);
  EXPECT_EQ(dictionary->number("none"), std::nullopt);
  EXPECT_EQ(dictionary->integer("none"), std::nullopt);
  EXPECT_EQ(dictionary->real("none"), std::nullopt);
  EXPECT_EQ(dictionary->boolean("none"), std::nullopt);
  EXPECT_EQ(dictionary->data("none"), nullptr);
  EXPECT_EQ(dictionary->dictionary("none"), nullptr);
  EXPECT_EQ(dictionary->array("none"), nullptr);
  EXPECT_EQ(dictionary->string(""), std::nullopt);
}

TEST(ZPKDictionaryTest, AValueOfAnotherClassIsNullForEveryGetter) {
  const auto dictionary = message();
  EXPECT_EQ(dictionary->string("slot"), std::nullopt);
  EXPECT_EQ(dictionary->number("name"), std::nullopt);
  EXPECT_EQ(dictionary->integer("name"), std::nullopt);
  EXPECT_EQ(dictionary->real("name"), std::nullopt);
  EXPECT_EQ(dictionary->boolean("name"), std::nullopt);
  EXPECT_EQ(dictionary->data("name"), nullptr);
  EXPECT_EQ(dictionary->dictionary("steps"), nullptr);
  EXPECT_EQ(dictionary->array("limits"), nullptr);
}

TEST(ZPKDictionaryTest, AnIntegerIsAnyNumberWithAnExactIntegerValue) {
  const auto dictionary = ZPKDictionary::init({{"2.0", 2.0},
                                               {"2.5", 2.5},
                                               {"true", true},
                                               {"min", std::numeric_limits<int64_t>::min()},
                                               {"2^63", uint64_t{1} << 63},
                                               {"1e300", 1e300},
                                               {"nan", std::numeric_limits<double>::quiet_NaN()}});
  EXPECT_EQ(dictionary->integer("2.0"), 2);
  EXPECT_EQ(dictionary->integer("2.5"), std::nullopt);
  EXPECT_EQ(dictionary->integer("true"), 1);
  EXPECT_EQ(dictionary->integer("min"), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(dictionary->integer("2^63"), std::nullopt);
  EXPECT_EQ(dictionary->number("2^63")->unsignedIntegerValue(), uint64_t{1} << 63);
  EXPECT_EQ(dictionary->integer("1e300"), std::nullopt);
  EXPECT_EQ(dictionary->integer("nan"), std::nullopt);
}

TEST(ZPKDictionaryTest, KeysAreOrderedByLengthAndThenBytes) {
  const auto dictionary = ZPKDictionary::init(
      {{"bb", 1}, {"b", 2}, {"", 3}, {"\xc3\xa4", 4}, {"aa", 5}, {"a", 6}, {"ccc", 7}});
  EXPECT_THAT(keys(*dictionary), ElementsAre("", "a", "b", "aa", "bb", "\xc3\xa4", "ccc"));
  EXPECT_EQ(dictionary->integer("ccc"), 7);
  EXPECT_EQ(dictionary->integer(""), 3);
  EXPECT_EQ(dictionary->integer("\xc3\xa4"), 4);
}

TEST(ZPKDictionaryTest, TheLastOfARepeatedKeyCounts) {
  const auto dictionary =
      ZPKDictionary::init({{"b", 1}, {"a", 2}, {"b", 3}, {"a", 4}, {"a", 5}, {"c", 6}});
  EXPECT_THAT(keys(*dictionary), ElementsAre("a", "b", "c"));
  EXPECT_EQ(dictionary->integer("a"), 5);
  EXPECT_EQ(dictionary->integer("b"), 3);
  EXPECT_EQ(dictionary->integer("c"), 6);
}

TEST(ZPKDictionaryTest, AnEntryWhoseLastValueIsNullIsLeftOut) {
  const auto dictionary = ZPKDictionary::init({{"a", nullptr}, {"b", 1}, {"b", nullptr}, {"c", 2}});
  EXPECT_THAT(keys(*dictionary), ElementsAre("c"));
}

TEST(ZPKDictionaryTest, CanBeCreatedFromComputedEntries) {
  ZPKDictionary::Entries entries;
  for (int i = 999; i >= 0; --i) entries.emplace_back(std::to_string(i), i);
  const auto dictionary = ZPKDictionary::init(std::move(entries));
  EXPECT_EQ(dictionary->count(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(dictionary->integer(std::to_string(i)), i);
}

TEST(ZPKDictionaryTest, CanBeEmpty) {
  EXPECT_EQ(ZPKDictionary::init()->count(), 0U);
  EXPECT_EQ(ZPKDictionary::init({})->count(), 0U);
  EXPECT_TRUE(ZPKDictionary::init()->isEqual(*ZPKDictionary::init({})));
}

TEST(ZPKDictionaryTest, IsEqualIfItsKeysAndValuesAreEqual) {
  EXPECT_TRUE(message()->isEqual(*message()));
  const auto one = ZPKDictionary::init({{"a", 1}, {"b", 2}});
  EXPECT_TRUE(one->isEqual(*ZPKDictionary::init({{"b", 2}, {"a", 1}})));
  EXPECT_FALSE(one->isEqual(*ZPKDictionary::init({{"a", 1}, {"c", 2}})));
  EXPECT_FALSE(one->isEqual(*ZPKDictionary::init({{"a", 1}, {"b", 3}})));
  EXPECT_FALSE(one->isEqual(*ZPKDictionary::init({{"a", 1}})));
  EXPECT_FALSE(one->isEqual(*ZPKArray::init({1, 2})));
}

TEST(ZPKDictionaryTest, IsDescribedInOneLine) {
  const auto dictionary = ZPKDictionary::init({{"ok", true},
                                               {"raw", ZPKData::dataWithBytes("\x0a\xff", 2)},
                                               {"name", "a\"b\\c\nd"},
                                               {"empty", ZPKDictionary::init()},
                                               {"nested", {{"x", 0.5}, {"y", -1}}}});
  EXPECT_EQ(dictionary->debugDescription(),
            R"({"ok": 1, "raw": h'0aff', "name": "a\"b\\c\u000ad", "empty": {}, )"
            R"("nested": {"x": 0.5, "y": -1}})");
}

}  // namespace
