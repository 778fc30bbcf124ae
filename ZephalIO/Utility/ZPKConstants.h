/// @file
/// Timeouts, and the keys of options.
#pragma once

#include <string_view>

#include "Utility/ZPKExport.h"

/// A timeout that never expires. Compared by exact equality: any other negative timeout is
/// rejected.
extern ZPK_EXPORT const double ZEPHAL_COMMUNICATION_TIME_FOREVER;
/// A timeout that expires immediately: return what is there without waiting.
extern ZPK_EXPORT const double ZEPHAL_COMMUNICATION_TIME_NOW;

/// Option key of a serial port's baud rate in both directions: an integer number of bits per
/// second, 115200 by default. On Linux a rate without a termios constant fails at open if the
/// driver cannot set it to within three per cent.
extern ZPK_EXPORT const std::string_view ZEPHAL_COMMUNICATION_UART_BAUD;
/// Option key of a serial port's character format: a string of three characters, the size ("5" to
/// "8"), the parity ("N", "O" or "E") and the stop bits ("1" or "2"), "8N1" by default.
extern ZPK_EXPORT const std::string_view ZEPHAL_COMMUNICATION_UART_MODE;
/// Option key of the exclusive hold on a serial port: a boolean, as a number or as text (see
/// ZPKOptions::boolean), true by default. The hold can outlast close (see createUARTChannel). False
/// opens the port without one.
extern ZPK_EXPORT const std::string_view ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK;

/// A version symbol; always 0. The version of the running library is in the location of every
/// ZPKError.
extern ZPK_EXPORT const double ZephalIOVersionNumber;
/// A version symbol in the form that a file-identification tool such as what(1) looks for. It
/// contains no number, and ends with a line feed and a zero byte.
extern ZPK_EXPORT const unsigned char ZephalIOVersionString[];
