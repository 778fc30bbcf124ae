#include "Data Channel Internal/ZPIUARTLifetimePolicy.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "Data Channel Internal/ZPICloseDescriptor.h"
#include "Utility/ZPIExactTerminalSpeed.h"
#include "Utility/ZPKConstants.h"
#include "Utility/ZPKReportFailure.h"

namespace {

constexpr std::array<int64_t, 22> kStandardSpeeds = {
    50,   75,   110,   134,   150,  200,   300,   600,   1200,  1800,   2400,
    4800, 9600, 19200, 38400, 7200, 14400, 28800, 57600, 76800, 115200, 230400};

bool reportStep(ZPKErrorPtr* error, const ZPIFailureSite& site, const char* format,
                const std::string& path, int number) {
  ZPKReportFailure(error, kZPICommunicationDomain, 4, site, format, path, ZPIErrorText(number),
                   number);
  return false;
}

bool reportMode(ZPKErrorPtr* error, const ZPIFailureSite& site, const char* message) {
  ZPKReportFailure(error, kZPICommunicationDomain, 3, site, message);
  return false;
}

// Whether termios can express the rate. Some rates of the standard list have no constant, and
// cfsetspeed rejects those.
bool setStandardSpeed(termios* attributes, int64_t rate) {
  const bool isStandard =
      std::find(kStandardSpeeds.begin(), kStandardSpeeds.end(), rate) != kStandardSpeeds.end();
  if (!isStandard || ::cfsetspeed(attributes, static_cast<speed_t>(rate)) != 0) return false;
#ifdef CIBAUD
  // cfsetspeed does not clear a separate input rate that an earlier program has set.
  attributes->c_cflag &= ~static_cast<tcflag_t>(CIBAUD);
#endif
  return true;
}

bool setMode(termios* attributes, const std::string& mode, ZPKErrorPtr* error) {
  return ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(attributes, mode.at(0), error) &&
         ZPIUARTLifetimePolicy::setParityMaskSpecifier(attributes, mode.at(1), error) &&
         ZPIUARTLifetimePolicy::setStopBitSpecifier(attributes, mode.at(2), error);
}

void switchOffProcessing(termios* attributes) {
  attributes->c_iflag = 0;
  attributes->c_oflag = 0;
  attributes->c_lflag = 0;
  for (const int character : {VEOF, VEOL, VEOL2, VERASE, VWERASE, VKILL, VREPRINT, VINTR, VQUIT,
                              VSUSP, VSTART, VSTOP, VLNEXT, VDISCARD}) {
    attributes->c_cc[character] = 0;
  }
  attributes->c_cc[VMIN] = 1;
  attributes->c_cc[VTIME] = 1;
}

}  // namespace

bool ZPIUARTLifetimePolicy::acquire(int32_t* descriptor, ZPKErrorPtr* error) const {
  return openPortWithError__no_cleanup(descriptor, url, options, error);
}

bool ZPIUARTLifetimePolicy::openPortWithError__no_cleanup(int32_t* descriptor, const ZPKURLPtr& url,
                                                          const ZPKOptionsPtr& options,
                                                          ZPKErrorPtr* error) {
  constexpr const char* kSite = "openPortWithError__no_cleanup";
  const std::string& path = url->path();
  // O_NONBLOCK keeps open from waiting for a carrier; it is cleared again below.
  *descriptor = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (*descriptor < 0) {
    return reportStep(error, {kSite}, "Error opening serial port %@ - %s(%d).", path, errno);
  }
  const bool isExclusive =
      options->boolean(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK).value_or(false);
  if (isExclusive && ::ioctl(*descriptor, TIOCEXCL) == -1) {
    return reportStep(error, {kSite}, "Error setting TIOCEXCL on %@ - %s(%d)", path, errno);
  }
  if (::fcntl(*descriptor, F_SETFL, 0) == -1) {
    return reportStep(error, {kSite}, "Error clearing O_NONBLOCK %@ - %s(%d)", path, errno);
  }
  termios attributes{};
  if (::tcgetattr(*descriptor, &attributes) == -1) {
    return reportStep(error, {kSite}, "Error getting tty attributes %@ - %s(%d)", path, errno);
  }
  ::cfmakeraw(&attributes);
  const int64_t rate = options->number(ZEPHAL_COMMUNICATION_UART_BAUD).value_or(0).integerValue();
  const bool needsExactSpeed = !setStandardSpeed(&attributes, rate);
  attributes.c_cflag |= CREAD | CLOCAL;
  const std::string mode = options->string(ZEPHAL_COMMUNICATION_UART_MODE).value_or("");
  if (!setMode(&attributes, mode, error)) return false;
  switchOffProcessing(&attributes);
  if (::tcsetattr(*descriptor, TCSANOW, &attributes) == -1) {
    return reportStep(error, {kSite}, "Error setting tty attributes %@ - %s(%d)", path, errno);
  }
  if (needsExactSpeed && ZPISetExactTerminalSpeed(*descriptor, static_cast<uint64_t>(rate)) == -1) {
    const int number = errno;
    ZPKReportFailure(error, kZPICommunicationDomain, 4, {kSite},
                     "Error %d calling ioctl( ..., ZSSIOSPEED, ... )", number);
    return false;
  }
  return true;
}

bool ZPIUARTLifetimePolicy::setCharacterSizeSpecifier(termios* attributes, char specifier,
                                                      ZPKErrorPtr* error) {
  attributes->c_cflag &= ~static_cast<tcflag_t>(CSIZE);
  switch (specifier) {
    case '5': attributes->c_cflag |= CS5; return true;
    case '6': attributes->c_cflag |= CS6; return true;
    case '7': attributes->c_cflag |= CS7; return true;
    case '8': attributes->c_cflag |= CS8; return true;
    default:
      return reportMode(error, {"setCharacterSizeSpecifier"},
                        "Invalid Character Size (Use 5, 6, 7, or 8)");
  }
}

bool ZPIUARTLifetimePolicy::setParityMaskSpecifier(termios* attributes, char specifier,
                                                   ZPKErrorPtr* error) {
  switch (specifier) {
    case 'N': attributes->c_cflag &= ~static_cast<tcflag_t>(PARENB); return true;
    case 'O': attributes->c_cflag |= PARENB | PARODD; return true;
    case 'E':
      attributes->c_cflag &= ~static_cast<tcflag_t>(PARODD);
      attributes->c_cflag |= PARENB;
      return true;
    default:
      return reportMode(error, {"setParityMaskSpecifier"}, "Invalid parity (Use N, O, or E)");
  }
}

bool ZPIUARTLifetimePolicy::setStopBitSpecifier(termios* attributes, char specifier,
                                                ZPKErrorPtr* error) {
  switch (specifier) {
    case '1': attributes->c_cflag &= ~static_cast<tcflag_t>(CSTOPB); return true;
    case '2': attributes->c_cflag |= CSTOPB; return true;
    default: return reportMode(error, {"setStopBitSpecifier"}, "Invalid stop but (Use 1, or 2)");
  }
}

bool ZPIUARTLifetimePolicy::close(int32_t descriptor, ZPKErrorPtr* error) const {
  return ZPICloseDescriptor(descriptor, error, {"close"});
}
