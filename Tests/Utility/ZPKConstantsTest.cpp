#include <gtest/gtest.h>

#include <string_view>
#include <type_traits>

#include "Utility/ZPKConstants.h"

namespace {

TEST(ZPKConstantsTest, TheTimeoutsHaveTheirExactValues) {
  EXPECT_EQ(ZEPHAL_COMMUNICATION_TIME_FOREVER, -1.0);
  EXPECT_EQ(ZEPHAL_COMMUNICATION_TIME_NOW, 0.0);
  static_assert(std::is_same_v<decltype(ZEPHAL_COMMUNICATION_TIME_FOREVER), const double>);
  static_assert(std::is_same_v<decltype(ZEPHAL_COMMUNICATION_TIME_NOW), const double>);
}

TEST(ZPKConstantsTest, TheOptionKeysHaveTheirFullNames) {
  EXPECT_EQ(ZEPHAL_COMMUNICATION_UART_BAUD, "zephalbench.zephal.zephal-communication.uart-baud");
  EXPECT_EQ(ZEPHAL_COMMUNICATION_UART_MODE, "zephalbench.zephal.zephal-communication.uart-mode");
  EXPECT_EQ(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK,
            "zephalbench.zephal.zephal-communication.uart-exclusive-lock");
}

TEST(ZPKConstantsTest, TheVersionSymbolsSuitAnIdentificationTool) {
  EXPECT_EQ(ZephalIOVersionNumber, 0.0);
  EXPECT_EQ(reinterpret_cast<const char*>(ZephalIOVersionString),
            std::string_view("@(#)PROGRAM:ZephalIO  PROJECT:ZephalIO-\n"));
}

}  // namespace
