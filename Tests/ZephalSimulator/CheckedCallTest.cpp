#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <system_error>

#include "CheckedCall.h"

namespace {

TEST(CheckedCallTest, AFailureNamesTheCallTheAddressAndTheReason) {
  errno = EACCES;
  try {
    zephal::checkedCall(-1, "bind", "/tmp/socket");
    FAIL();
  } catch (const std::system_error& failure) {
    EXPECT_STREQ(failure.what(), "simulated device: bind /tmp/socket: Permission denied");
    EXPECT_EQ(failure.code().value(), EACCES);
  }
}

TEST(CheckedCallTest, ASuccessIsReturned) { EXPECT_EQ(zephal::checkedCall(7, "open"), 7); }

TEST(CheckedCallTest, ADescriptorIsClosedOnce) {
  int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int number = descriptor;
  zephal::closeDescriptor(&descriptor);
  EXPECT_EQ(descriptor, -1);
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);
  zephal::closeDescriptor(&descriptor);
}

}  // namespace
