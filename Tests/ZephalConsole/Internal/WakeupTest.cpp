#include <gtest/gtest.h>
#include <poll.h>

#include "ZephalConsole/Internal/Wakeup.h"

namespace {

using zephal::internal::Wakeup;

bool isSet(const Wakeup& wakeup) {
  pollfd waiting{wakeup.descriptor(), POLLIN, 0};
  return ::poll(&waiting, 1, 0) == 1;
}

TEST(Wakeup, StaysSetUntilItIsCleared) {
  const Wakeup wakeup;
  EXPECT_FALSE(isSet(wakeup));
  wakeup.wake();
  wakeup.wake();
  EXPECT_TRUE(isSet(wakeup));
  wakeup.clear();
  EXPECT_FALSE(isSet(wakeup));
  wakeup.clear();
}

}  // namespace
