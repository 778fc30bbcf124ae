// The one error site of the library.
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

/// Where a failure was detected. Only the function is given; file and line are those of the braces.
struct ZPIFailureSite {
  // Implicit, so that a site names its function and nothing else. clang 14 has no
  // std::source_location; both compilers have these builtins.
  ZPIFailureSite(const char* functionName, const char* sourceFile = __builtin_FILE(),
                 int sourceLine = __builtin_LINE())
      : function(functionName), file(sourceFile), line(sourceLine) {}

  const char* function;
  const char* file;
  int line;
};

/// The "ErrorLocation" text of a site.
std::string ZPIErrorLocation(const ZPIFailureSite& site);

/// Fills the slot, unless it is null, replacing what was there.
void ZPIStoreFailure(ZPKErrorPtr* errorSlot, const char* shortDomain, int code,
                     const ZPIFailureSite& site, const char* format,
                     std::span<const ZPKLogArgument> arguments);

/// Fills the slot, if the caller gave one, and writes one log line at level 0 in any case, with the
/// same text. Takes no lock of the library. An errno is passed by value, saved straight after the
/// call that set it.
template <class... Arguments>
void ZPKReportFailure(ZPKErrorPtr* errorSlot, const char* shortDomain, int code,
                      const ZPIFailureSite& site, const char* format,
                      const Arguments&... arguments) {
  const std::array<ZPKLogArgument, sizeof...(Arguments)> list{ZPKLogArgument(arguments)...};
  // An argument may be a text of the error that is replaced, which the log line still shows.
  const ZPKErrorPtr replaced = errorSlot != nullptr ? *errorSlot : nullptr;
  if (errorSlot != nullptr) ZPIStoreFailure(errorSlot, shortDomain, code, site, format, list);
  ZPKLoggingLogArguments(ZPKLogGetAnchor(), 0, format, list);
}

/// The system's text for an error number (strerror(3)), from its thread-safe form.
std::string ZPIErrorText(int number);

/// An error of the system's own, domain "POSIX" with the errno as its code. It is not logged: who
/// passes it on decides what the log is told.
ZPKErrorPtr ZPISystemError(int number, const ZPIFailureSite& site);
