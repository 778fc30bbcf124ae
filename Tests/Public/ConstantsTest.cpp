// The exported constants, as seen by a program that is linked with the shared library.
#include <ZephalIO/ZPKConstants.h>
#include <gtest/gtest.h>

#include <string_view>

namespace {

TEST(ConstantsTest, TheTimeoutsHaveTheirValues) {
  EXPECT_EQ(ZEPHAL_COMMUNICATION_TIME_FOREVER, -1.0);
  EXPECT_EQ(ZEPHAL_COMMUNICATION_TIME_NOW, 0.0);
}

TEST(ConstantsTest, TheOptionKeysHaveTheirTexts) {
  EXPECT_EQ(ZEPHAL_COMMUNICATION_UART_BAUD, "zephalbench.zephal.zephal-communication.uart-baud");
  EXPECT_EQ(ZEPHAL_COMMUNICATION_UART_MODE, "zephalbench.zephal.zephal-communication.uart-mode");
  EXPECT_EQ(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK,
            "zephalbench.zephal.zephal-communication.uart-exclusive-lock");
}

TEST(ConstantsTest, TheVersionSymbolsSuitIdentificationTools) {
  EXPECT_EQ(ZephalIOVersionNumber, 0.0);
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(ZephalIOVersionString)),
            "@(#)PROGRAM:ZephalIO  PROJECT:ZephalIO-\n");
}

}  // namespace
