#include <gtest/gtest.h>

#include <memory>

#include "Utility/ZPIObjectKind.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKString.h"

namespace {

class CallersOwn final : public ZPKObject {};

class DerivedData final : public ZPKData {
 public:
  DerivedData() : ZPKData(false) {}
};

ZPIObjectKind kindOf(const ZPKValue& value) { return ZPIKindOf(value.object().get()); }

TEST(ZPIObjectKindTest, EachClassHasItsKind) {
  EXPECT_EQ(kindOf(ZPKDictionary::init()), ZPIObjectKind::Dictionary);
  EXPECT_EQ(kindOf(ZPKArray::init()), ZPIObjectKind::Array);
  EXPECT_EQ(kindOf("text"), ZPIObjectKind::String);
  EXPECT_EQ(kindOf(1), ZPIObjectKind::Number);
  EXPECT_EQ(kindOf(0.5), ZPIObjectKind::Number);
  EXPECT_EQ(kindOf(true), ZPIObjectKind::Number);
  EXPECT_EQ(kindOf(ZPKData::data()), ZPIObjectKind::Data);
}

TEST(ZPIObjectKindTest, NullHasAKindOfItsOwn) {
  EXPECT_EQ(ZPIKindOf(nullptr), ZPIObjectKind::Null);
}

TEST(ZPIObjectKindTest, MutableDataIsData) {
  const ZPKMutableData data;
  EXPECT_EQ(ZPIKindOf(&data), ZPIObjectKind::Data);
}

TEST(ZPIObjectKindTest, AClassDerivedFromDataIsData) {
  const DerivedData data;
  EXPECT_EQ(ZPIKindOf(&data), ZPIObjectKind::Data);
}

TEST(ZPIObjectKindTest, ACallersOwnClassIsOther) {
  const CallersOwn object;
  EXPECT_EQ(ZPIKindOf(&object), ZPIObjectKind::Other);
}

}  // namespace
