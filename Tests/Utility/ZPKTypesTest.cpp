#include <gtest/gtest.h>

#include <cstdint>

#include "Utility/ZPKObject.h"
#include "Utility/ZPKTypes.h"

namespace {

TEST(ZPKTypesTest, TheNotFoundMarkIsTheLargestSignedNumber) {
  EXPECT_EQ(ZPKNotFound, 0x7fffffffffffffffU);
}

TEST(ZPKTypesTest, ARangeWithoutValuesIsNotFound) {
  EXPECT_EQ(ZPKRange(), (ZPKRange{ZPKNotFound, 0}));
}

TEST(ZPKTypesTest, RangesAreEqualByLocationAndLength) {
  EXPECT_EQ((ZPKRange{1, 2}), (ZPKRange{1, 2}));
  EXPECT_NE((ZPKRange{1, 2}), (ZPKRange{1, 3}));
  EXPECT_NE((ZPKRange{1, 2}), (ZPKRange{0, 2}));
}

TEST(ZPKObjectTest, AnObjectIsDestroyedThroughItsRoot) {
  struct Noted final : ZPKObject {
    explicit Noted(bool* isDestroyed) : _isDestroyed(isDestroyed) {}
    ~Noted() override { *_isDestroyed = true; }
    bool* const _isDestroyed;
  };
  bool isDestroyed = false;
  std::unique_ptr<ZPKObject> object = std::make_unique<Noted>(&isDestroyed);
  object.reset();
  EXPECT_TRUE(isDestroyed);
}

}  // namespace
