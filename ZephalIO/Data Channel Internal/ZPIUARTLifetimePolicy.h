#pragma once

#include <termios.h>

#include <cstdint>

#include "Utility/ZPKOptions.h"
#include "Utility/ZPKURL.h"

/// How a serial device is opened, set up and closed. No other class sets up serial lines.
class ZPIUARTLifetimePolicy {
 public:
  static constexpr bool kIsSocket = false;

  /// `portOptions` contains all three options and must not change any more.
  ZPIUARTLifetimePolicy(ZPKURLPtr device, ZPKOptionsPtr portOptions)
      : url(std::move(device)), options(std::move(portOptions)) {}

  bool acquire(int32_t* descriptor, ZPKErrorPtr* error) const;

  /// Opens the device raw, with its baud rate and mode, and by default takes an exclusive hold
  /// (termios(3), TIOCEXCL in ioctl_tty(2)). Fills `descriptor` as soon as the device is open, and
  /// closes nothing if a later step fails.
  ///
  /// Fails with domain "zephal-communication", code 4 for a system call and code 3 for a bad mode.
  /// A mode shorter than three characters throws std::out_of_range and leaves the device open.
  static bool openPortWithError__no_cleanup(int32_t* descriptor, const ZPKURLPtr& url,
                                            const ZPKOptionsPtr& options, ZPKErrorPtr* error);

  static bool setCharacterSizeSpecifier(termios* attributes, char specifier, ZPKErrorPtr* error);
  static bool setParityMaskSpecifier(termios* attributes, char specifier, ZPKErrorPtr* error);
  static bool setStopBitSpecifier(termios* attributes, char specifier, ZPKErrorPtr* error);

  /// Closes; the device keeps its settings.
  bool close(int32_t descriptor, ZPKErrorPtr* error) const;

 private:
  ZPKURLPtr url;
  ZPKOptionsPtr options;
};
