#include <fcntl.h>
#include <gtest/gtest.h>

#include "ZephalConsole/Internal/Descriptor.h"

namespace {

using zephal::internal::Descriptor;

bool isOpen(int number) { return ::fcntl(number, F_GETFD) >= 0; }

TEST(Descriptor, IsClosedWithItsOwner) {
  int number = -1;
  {
    const Descriptor descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    number = descriptor.number();
    EXPECT_TRUE(descriptor.isValid());
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, HasOneOwnerAfterAMove) {
  Descriptor first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int number = first.number();
  {
    const Descriptor second(std::move(first));
    EXPECT_EQ(second.number(), number);
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, CanBeNone) { EXPECT_FALSE(Descriptor().isValid()); }

}  // namespace
