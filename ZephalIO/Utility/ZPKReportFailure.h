// The one place that reports the library's errors.
//
//     ZPKReportFailure(error, kZPICommunicationDomain, 3, {"createPassiveChannel"},
//                      "channel cannot be nil");
//     return nullptr;
#pragma once

#include <array>
#include <span>

#include "Utility/ZPKError.h"
#include "Utility/ZPKTypes.h"
#include "ZephalLogging.h"

inline constexpr const char* kZPICommunicationDomain = "zephal-communication";
inline constexpr const char* kZPICommChannelDomain = "zephal-commchannel";
inline constexpr const char* kZPICommLoggerChannelDomain = "zephal-commloggerchannel";
inline constexpr const char* kZPIDataConversionDomain = "zephal-dataconversion";

/// Where a failure was detected. The caller names only the function; file and line are those of the
/// braces.
struct ZPIFailureSite {
  // Implicit, so that a call site only names its function. clang 14 has no std::source_location,
  // but both compilers have these builtins.
  ZPIFailureSite(const char* functionName, const char* sourceFile = __builtin_FILE(),
                 int sourceLine = __builtin_LINE())
      : function(functionName), file(sourceFile), line(sourceLine) {}

  const char* function;
  const char* file;
  int line;
};

/// The "ErrorLocation" text of a site.
std::string ZPIErrorLocation(const ZPIFailureSite& site);

/// Creates an error and stores it in the slot, which must not be null.
void ZPIStoreFailure(ZPKErrorPtr* errorSlot, const char* shortDomain, int code,
                     const ZPIFailureSite& site, const char* format,
                     std::span<const ZPKLogArgument> arguments);

/// Fills the slot if the caller passed one, and in any case writes one log line at level 0 with the
/// same text. Takes no lock of the library. Pass an errno by value, saved immediately after the
/// call that set it.
template <class... Arguments>
void ZPKReportFailure(ZPKErrorPtr* errorSlot, const char* shortDomain, int code,
                      const ZPIFailureSite& site, const char* format,
                      const Arguments&... arguments) {
  const std::array<ZPKLogArgument, sizeof...(Arguments)> list{ZPKLogArgument(arguments)...};
  // Keeps the old error alive: an argument may be a text of it, which the log line still shows.
  const ZPKErrorPtr replaced = errorSlot != nullptr ? *errorSlot : nullptr;
  if (errorSlot != nullptr) ZPIStoreFailure(errorSlot, shortDomain, code, site, format, list);
  ZPKLoggingLogArguments(ZPKLogGetAnchor(), 0, format, list);
}

/// The system's text for an error number (strerror_r(3)). Safe on any thread.
std::string ZPIErrorText(int number);

/// An error of the system itself: domain "POSIX", with the errno as its code. It is not logged; the
/// caller that passes it on decides what to log.
ZPKErrorPtr ZPISystemError(int number, const ZPIFailureSite& site);
