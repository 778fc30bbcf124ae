#include "Utility/ZPKReportFailure.h"

#include <cstring>
#include <string>
#include <string_view>

namespace {

std::string_view baseName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The two forms of strerror_r: POSIX fills the buffer, GNU returns the text.
[[maybe_unused]] const char* errorText(int result, const char* buffer) {
  return result == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* errorText(const char* result, const char* /*buffer*/) {
  return result;
}

ZPKErrorPtr makeError(std::string domain, int code, const ZPIFailureSite& site,
                      std::string description) {
  ZPKError::UserInfo userInfo;
  userInfo.emplace(ZPKErrorDescriptionKey, std::move(description));
  userInfo.emplace(ZPKErrorLocationKey, ZPIErrorLocation(site));
  return ZPKError::init(std::move(domain), code, std::move(userInfo));
}

}  // namespace

std::string ZPIErrorLocation(const ZPIFailureSite& site) {
  return ZPKLoggingFormat("[Zephal-%s] %s:%s:%s", ZEPHALIO_VERSION, baseName(site.file),
                          site.function, std::to_string(site.line));
}

void ZPIStoreFailure(ZPKErrorPtr* errorSlot, const char* shortDomain, int code,
                     const ZPIFailureSite& site, const char* format,
                     std::span<const ZPKLogArgument> arguments) {
  *errorSlot = makeError(ZPKLoggingFormat("zephalbench.%s", shortDomain), code, site,
                         ZPKLoggingFormatArguments(format, arguments));
}

std::string ZPIErrorText(int number) {
  char buffer[256] = "";
  return errorText(::strerror_r(number, buffer, sizeof buffer), buffer);
}

ZPKErrorPtr ZPISystemError(int number, const ZPIFailureSite& site) {
  return makeError("POSIX", number, site, ZPIErrorText(number));
}
