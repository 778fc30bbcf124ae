#pragma once

#include <termios.h>

#include <cstdint>

#include "Utility/ZPKOptions.h"
#include "Utility/ZPKURL.h"

/// How a serial device comes and goes. All the serial knowledge of the library is here.
class ZPIUARTLifetimePolicy {
 public:
  static constexpr bool kIsSocket = false;

  /// `portOptions` holds all three options and is not changed any more.
  ZPIUARTLifetimePolicy(ZPKURLPtr device, ZPKOptionsPtr portOptions)
      : url(std::move(device)), options(std::move(portOptions)) {}

  bool acquire(int32_t* descriptor, ZPKErrorPtr* error) const;

  /// Opens the device raw and, by default, exclusively held, with its speed and mode. Fills
  /// `descriptor` as soon as the device is open and closes nothing when a later step fails.
  ///
  /// Fails with domain "zephal-communication", code 4 for a system call and 3 for a bad mode. A
  /// mode shorter than three characters throws std::out_of_range, with the device left open.
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
