#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string_view>
#include <vector>

#include "Support/SystemCalls.h"
#include "Utility/ZPIDataGivingUp.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

void append(ZPIHeapVector<uint8_t>* vector, std::string_view text) {
  vector->append(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

TEST(ZPIDataGivingUpTest, TheBytesStayWhereTheyAre) {
  ZPIHeapVector<uint8_t> vector;
  append(&vector, "given up");
  const uint8_t* const storage = vector.data();
  const ZPKDataPtr data = ZPIDataGivingUp(&vector);
  EXPECT_EQ(data->view(), "given up");
  EXPECT_EQ(data->bytes(), storage);
  EXPECT_TRUE(vector.empty());
  EXPECT_EQ(vector.capacity(), 0U);
}

TEST(ZPIDataGivingUpTest, AnEditUsesTheRoomAfterTheBytes) {
  ZPIHeapVector<uint8_t> vector;
  append(&vector, "short");
  ASSERT_GE(vector.capacity(), 8U);
  const ZPKMutableDataPtr data = ZPKMutableData::mutableCopyGivingUp(ZPIDataGivingUp(&vector));
  const SystemCalls calls;
  data->append("er", 2);
  EXPECT_EQ(calls.allocations(), 0U);
  EXPECT_EQ(data->view(), "shorter");
}

TEST(ZPIDataGivingUpTest, AnEmptyVectorBecomesTheEmptyInstance) {
  ZPIHeapVector<uint8_t> vector;
  EXPECT_EQ(ZPIDataGivingUp(&vector), ZPKData::data());
}

// How many more blocks there are after a failure for want of memory. Objects that were freed
// earlier are used first, so it may take some until there is one.
int64_t blocksLeftByAFailure() {
  constexpr size_t kMost = 10000;
  std::vector<ZPKDataPtr> taken;
  taken.reserve(kMost);
  while (taken.size() < kMost) {
    const int64_t before = liveBlocks();
    ZPIHeapVector<uint8_t> vector;
    append(&vector, "given up");
    SystemCalls calls;
    calls.failAllocation();
    try {
      taken.push_back(ZPIDataGivingUp(&vector));
    } catch (const std::bad_alloc&) {
      return liveBlocks() - before;
    }
  }
  ADD_FAILURE() << "no allocation failed";
  return 0;
}

TEST(ZPIDataGivingUpTest, WithoutMemoryForTheDataTheBytesAreFreed) {
  blocksLeftByAFailure();  // what the first exception of a process makes stays
  EXPECT_EQ(blocksLeftByAFailure(), 0);
}

}  // namespace
