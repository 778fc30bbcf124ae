#include <gtest/gtest.h>

#include "Utility/ZPKArray.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKString.h"

namespace {

TEST(ZPKArrayTest, KeepsItsElementsInOrder) {
  const auto array = ZPKArray::init({1, "two", {{"three", 3}}});
  ASSERT_EQ(array->count(), 3U);
  EXPECT_TRUE(ZPKObjectsAreEqual(array->object(0), ZPKValue(1)));
  EXPECT_TRUE(ZPKObjectsAreEqual(array->object(1), ZPKString::init("two")));
  EXPECT_NE(ZPKObjectCast<ZPKDictionary>(array->object(2)), nullptr);
}

TEST(ZPKArrayTest, TwoTextsAreTwoElements) {
  EXPECT_EQ(ZPKArray::init({"one", "two"})->count(), 2U);
}

TEST(ZPKArrayTest, BeyondTheLastElementIsNull) {
  EXPECT_EQ(ZPKArray::init({1})->object(1), nullptr);
  EXPECT_EQ(ZPKArray::init()->object(0), nullptr);
}

TEST(ZPKArrayTest, KeepsNullElements) {
  const auto array = ZPKArray::init({nullptr, 1});
  EXPECT_EQ(array->count(), 2U);
  EXPECT_EQ(array->object(0), nullptr);
}

TEST(ZPKArrayTest, IsEqualIfItsElementsAreEqualAndInOrder) {
  const auto array = ZPKArray::init({1, nullptr, "two"});
  EXPECT_TRUE(array->isEqual(*ZPKArray::init({1, nullptr, "two"})));
  EXPECT_FALSE(array->isEqual(*ZPKArray::init({nullptr, 1, "two"})));
  EXPECT_FALSE(array->isEqual(*ZPKArray::init({1, 0, "two"})));
  EXPECT_FALSE(array->isEqual(*ZPKArray::init({1, nullptr})));
  EXPECT_FALSE(array->isEqual(*ZPKDictionary::init()));
}

TEST(ZPKArrayTest, IsDescribedInOneLine) {
  EXPECT_EQ(ZPKArray::init({1, "two", nullptr, ZPKArray::init(), ZPKArray::init({2.5})})
                ->debugDescription(),
            R"([1, "two", null, [], [2.5]])");
}

}  // namespace
