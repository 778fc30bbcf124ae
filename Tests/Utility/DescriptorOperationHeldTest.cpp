// Reads that add their bytes to those that the caller holds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Utility/DescriptorOperation.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

using testing::ElementsAre;

class DescriptorOperationHeldTest : public testing::Test {
 protected:
  ~DescriptorOperationHeldTest() override { use.leave(); }

  // What a read returns, and what is held after it.
  void expectRead(double timeout, const ZPKMutableDataPtr& held, std::string_view returned,
                  std::string_view heldAfterwards) {
    ZPKErrorPtr error = olderError();
    const ZPKDataPtr data = zephal_communication_read(use, held.get(), timeout, &error);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), returned);
    EXPECT_EQ(held->view(), heldAfterwards);
    EXPECT_EQ(error, olderError());
  }

  SocketPair pair;
  ZPIHeldDescriptor descriptor{pair.ours};
  ZPIHeldDescriptor::Use use = descriptor.use();
};

TEST_F(DescriptorOperationHeldTest, BytesThatWaitAreAddedByTheSameCalls) {
  pair.send("more");
  SystemCalls calls;
  expectRead(20.0, unitOf("rest"), "", "restmore");
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "select 20.000000", "read"));
  EXPECT_EQ(calls.all().back().size, 4);
  pair.send("even");
  calls.clear();
  expectRead(ZEPHAL_COMMUNICATION_TIME_NOW, unitOf("rest"), "", "resteven");
  EXPECT_THAT(calls.texts(), ElementsAre("ioctl FIONREAD", "read"));
}

TEST_F(DescriptorOperationHeldTest, AnEmptyBufferStaysEmpty) {
  pair.send("more");
  expectRead(20.0, unitOf(""), "more", "");
}

// Room for 64 KiB would be much for a short rest.
TEST_F(DescriptorOperationHeldTest, BytesThatArriveLaterAreReturnedToAShortBuffer) {
  SystemCalls calls;
  calls.before("select", [&] { pair.send("more"); });
  expectRead(20.0, unitOf("rest"), "more", "rest");
  EXPECT_EQ(calls.all().back().size, 65536);
}

TEST_F(DescriptorOperationHeldTest, BytesThatArriveLaterAreAddedToALongBuffer) {
  const std::string rest(65536, 'x');
  SystemCalls calls;
  calls.before("select", [&] { pair.send("more"); });
  expectRead(20.0, unitOf(rest), "", rest + "more");
  EXPECT_EQ(calls.all().back().size, 65536);
}

TEST_F(DescriptorOperationHeldTest, ATimeoutLeavesTheBuffer) {
  expectRead(0.000001, unitOf("rest"), "", "rest");
  expectRead(ZEPHAL_COMMUNICATION_TIME_NOW, unitOf("rest"), "", "rest");
}

TEST_F(DescriptorOperationHeldTest, AFailedReadLeavesTheBuffer) {
  const ZPKMutableDataPtr held = unitOf("rest");
  pair.send("more");
  SystemCalls calls;
  calls.fail("read", EIO);
  ZPKErrorPtr error;
  EXPECT_EQ(zephal_communication_read(use, held.get(), 20.0, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(held->view(), "rest");
}

TEST_F(DescriptorOperationHeldTest, AFailedAllocationIsReportedAsAFailedRead) {
  const ZPKMutableDataPtr held = unitOf("rest");
  pair.send(std::string(60000, 'x'));
  SystemCalls calls;
  calls.failAllocation();
  ZPKErrorPtr error;
  EXPECT_EQ(zephal_communication_read(use, held.get(), 20.0, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(held->view(), "rest");
}

}  // namespace
