// The block that a thread keeps between reads.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Support/DescriptorFailures.h"
#include "Support/ErrorExpectations.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Utility/DescriptorOperation.h"
#include "Utility/ZPISpareBlock.h"
#include "Utility/ZPKData.h"

using namespace support;

namespace {

constexpr size_t kMany = 100'000;

class DescriptorOperationBlockTest : public testing::Test {
 protected:
  DescriptorOperationBlockTest() { ZPISpareBlock::drop(); }
  ~DescriptorOperationBlockTest() override { ZPISpareBlock::drop(); }

  ZPKDataPtr readMany() {
    pair.send(std::string(kMany, 'x'));
    return zephal_communication_read(pair.ours, 20.0, nullptr);
  }
  // Whether a read of many bytes allocates no more than the object of its data.
  bool hasKeptBlock() {
    pair.send(std::string(kMany, 'x'));
    SystemCalls calls;
    const ZPKDataPtr data = zephal_communication_read(pair.ours, 20.0, nullptr);
    EXPECT_EQ(data == nullptr ? 0 : data->length(), kMany);
    return calls.allocations() == 1;
  }

  SocketPair pair;
};

TEST_F(DescriptorOperationBlockTest, ALargeReadTakesTheBlockOfTheLast) {
  EXPECT_FALSE(hasKeptBlock());
  EXPECT_TRUE(hasKeptBlock());
}

TEST_F(DescriptorOperationBlockTest, DataThatIsStillHeldKeepsItsBlock) {
  const ZPKDataPtr held = readMany();
  EXPECT_FALSE(hasKeptBlock());
  EXPECT_EQ(held->view(), std::string(kMany, 'x'));
}

TEST_F(DescriptorOperationBlockTest, AShortReadInBetweenLeavesTheBlock) {
  readMany();
  pair.send("short");
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, nullptr)->view(), "short");
  EXPECT_TRUE(hasKeptBlock());
}

TEST_F(DescriptorOperationBlockTest, AReadThatTimesOutDropsTheBlock) {
  readMany();
  EXPECT_EQ(zephal_communication_read(pair.ours, 0.000001, nullptr)->length(), 0U);
  EXPECT_FALSE(hasKeptBlock());
}

TEST_F(DescriptorOperationBlockTest, ALookThatFindsNothingDropsTheBlock) {
  readMany();
  EXPECT_EQ(zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_NOW, nullptr)->length(),
            0U);
  EXPECT_FALSE(hasKeptBlock());
}

TEST_F(DescriptorOperationBlockTest, AFailedReadDropsTheBlock) {
  readMany();
  {
    SystemCalls calls;
    calls.fail("read", EIO);
    pair.send("x");
    EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, nullptr), nullptr);
  }
  EXPECT_EQ(zephal_communication_read(pair.ours, 20.0, nullptr)->view(), "x");
  EXPECT_FALSE(hasKeptBlock());
}

TEST_F(DescriptorOperationBlockTest, AWaitWithoutLimitDropsTheBlockFirst) {
  readMany();
  {
    SystemCalls calls;
    calls.before("select", [&] { pair.send("x"); });
    EXPECT_EQ(
        zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr)->view(),
        "x");
  }
  EXPECT_FALSE(hasKeptBlock());
}

TEST_F(DescriptorOperationBlockTest, BytesThatWaitNeedNoDropBeforeAWait) {
  readMany();
  pair.send("x");
  EXPECT_EQ(
      zephal_communication_read(pair.ours, ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr)->view(),
      "x");
  EXPECT_TRUE(hasKeptBlock());
}

}  // namespace
