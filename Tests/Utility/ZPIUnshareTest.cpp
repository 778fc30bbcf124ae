#include <gtest/gtest.h>

#include "Support/Bytes.h"
#include "Utility/ZPIUnshare.h"

using namespace support;

namespace {

TEST(ZPIUnshareTest, MutableDataOfOneHolderStaysAsItIs) {
  ZPKDataPtr data = ZPKMutableData::dataWithBytes("ab", 2);
  const ZPKData* const before = data.get();
  ZPKMutableData* const own = ZPIUnshare(&data);
  EXPECT_EQ(own, before);
  EXPECT_EQ(data.get(), before);
  own->append("c", 1);
  EXPECT_EQ(bytesOf(data), "abc");
}

TEST(ZPIUnshareTest, SharedDataIsReplacedByACopy) {
  const ZPKMutableDataPtr shared = ZPKMutableData::dataWithBytes("ab", 2);
  ZPKDataPtr data = shared;
  ZPIUnshare(&data)->append("c", 1);
  EXPECT_EQ(bytesOf(data), "abc");
  EXPECT_EQ(bytesOf(shared), "ab");
}

TEST(ZPIUnshareTest, ImmutableDataIsReplacedByACopy) {
  ZPKDataPtr data = ZPKData::dataWithBytes("ab", 2);
  const ZPKData* const before = data.get();
  ZPKMutableData* const own = ZPIUnshare(&data);
  EXPECT_NE(own, before);
  EXPECT_EQ(own, data.get());
  EXPECT_TRUE(data->isMutable());
  EXPECT_EQ(bytesOf(data), "ab");
}

TEST(ZPIUnshareTest, EmptyDataCanBeEditedToo) {
  ZPKDataPtr data = ZPKData::data();
  ZPIUnshare(&data)->append("c", 1);
  EXPECT_EQ(bytesOf(data), "c");
  EXPECT_EQ(bytesOf(ZPKData::data()), "");
}

}  // namespace
