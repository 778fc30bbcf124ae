#include "Utility/ZPKConstants.h"

constinit const double ZEPHAL_COMMUNICATION_TIME_FOREVER = -1.0;
constinit const double ZEPHAL_COMMUNICATION_TIME_NOW = 0.0;

constinit const std::string_view ZEPHAL_COMMUNICATION_UART_BAUD =
    "zephalbench.zephal.zephal-communication.uart-baud";
constinit const std::string_view ZEPHAL_COMMUNICATION_UART_MODE =
    "zephalbench.zephal.zephal-communication.uart-mode";
constinit const std::string_view ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK =
    "zephalbench.zephal.zephal-communication.uart-exclusive-lock";

constinit const double ZephalIOVersionNumber = 0.0;
constinit const unsigned char ZephalIOVersionString[] = "@(#)PROGRAM:ZephalIO  PROJECT:ZephalIO-\n";
