#include <gtest/gtest.h>

#include <limits>

#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKObject.h"
#include "Utility/ZPKString.h"
#include "ZephalLogging.h"

namespace {

class Plain final : public ZPKObject {};

const double kNaN = std::numeric_limits<double>::quiet_NaN();

ZPKObjectPtr object(const ZPKValue& value) { return value.object(); }

TEST(ZPKObjectTest, NullEqualsOnlyNull) {
  EXPECT_TRUE(ZPKObjectsAreEqual(nullptr, nullptr));
  EXPECT_FALSE(ZPKObjectsAreEqual(nullptr, object(1)));
  EXPECT_FALSE(ZPKObjectsAreEqual(object(1), nullptr));
}

TEST(ZPKObjectTest, ACallersOwnClassEqualsOnlyItself) {
  const ZPKObjectPtr one = std::make_shared<const Plain>();
  const ZPKObjectPtr other = std::make_shared<const Plain>();
  EXPECT_TRUE(ZPKObjectsAreEqual(one, one));
  EXPECT_FALSE(ZPKObjectsAreEqual(one, other));
  EXPECT_EQ(one->debugDescription(), "<object>");
}

TEST(ZPKObjectTest, ACastToAnotherClassIsNull) {
  EXPECT_EQ(ZPKObjectCast<ZPKString>(object(1)), nullptr);
  EXPECT_EQ(ZPKObjectCast<ZPKString>(nullptr), nullptr);
  ASSERT_NE(ZPKObjectCast<ZPKString>(object("text")), nullptr);
  EXPECT_EQ(ZPKObjectCast<ZPKString>(object("text"))->value(), "text");
}

TEST(ZPKObjectTest, NumbersAreEqualByValueWhateverTheirKind) {
  EXPECT_TRUE(ZPKObjectsAreEqual(object(1), object(1.0)));
  EXPECT_TRUE(ZPKObjectsAreEqual(object(1), object(true)));
  EXPECT_TRUE(ZPKObjectsAreEqual(object(0.0), object(-0.0)));
  EXPECT_FALSE(ZPKObjectsAreEqual(object(1), object(2)));
  EXPECT_FALSE(ZPKObjectsAreEqual(object(1), object("1")));
}

TEST(ZPKObjectTest, NotANumberAsAnObjectEqualsItself) {
  EXPECT_TRUE(ZPKObjectsAreEqual(object(kNaN), object(kNaN)));
  EXPECT_FALSE(ZPKObjectsAreEqual(object(kNaN), object(0.0)));
  EXPECT_FALSE(ZPKObjectsAreEqual(object(0.0), object(kNaN)));
}

TEST(ZPKObjectTest, DataIsEqualByItsBytes) {
  auto editable = ZPKMutableData::data();
  editable->append("ab", 2);
  EXPECT_TRUE(ZPKObjectsAreEqual(ZPKData::dataWithString("ab"), editable));
  EXPECT_TRUE(ZPKObjectsAreEqual(editable, ZPKData::dataWithString("ab")));
  EXPECT_FALSE(ZPKObjectsAreEqual(ZPKData::dataWithString("ab"), ZPKData::dataWithString("ac")));
  EXPECT_FALSE(ZPKObjectsAreEqual(ZPKData::dataWithString("ab"), object("ab")));
}

TEST(ZPKObjectTest, DataIsDescribedByItsFirst32Bytes) {
  EXPECT_EQ(ZPKData::data()->debugDescription(), "h''");
  EXPECT_EQ(ZPKData::dataWithBytes("\x0a\xff\x00", 3)->debugDescription(), "h'0aff00'");
  const std::string full(32, 'a');
  EXPECT_EQ(ZPKData::dataWithString(full)->debugDescription().size(), 2 + 64 + 1U);
  const std::string cut = ZPKData::dataWithString(full + "b")->debugDescription();
  EXPECT_TRUE(cut.ends_with("6161...' (33 bytes)")) << cut;
  EXPECT_EQ(cut.find("62"), std::string::npos);
}

TEST(ZPKObjectTest, TheLogShowsAnObjectsDescription) {
  EXPECT_EQ(ZPKLoggingFormat("got %@", object("text")), "got text");
  EXPECT_EQ(ZPKLoggingFormat("got %@", ZPKObjectPtr(ZPKDictionary::init({{"slot", 3}}))),
            "got {\"slot\": 3}");
  EXPECT_EQ(ZPKLoggingFormat("got %@", ZPKObjectPtr()), "got (null)");
}

}  // namespace
