/// @file
/// Converts bytes to readable text, and hexadecimal text to bytes. Safe on any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKTypes.h"

/// The bytes that a string of hexadecimal digits stands for; the first two digits are the first
/// byte. Digits may be in either case. If their number is odd, a "0" is put in front. If the text
/// begins with "0x" (lower case), every "0x" in it is removed first. "" and "0x" return empty data.
///
/// Null if the text is null or contains anything else, a blank or a sign included: domain
/// "zephal-dataconversion", code 1.
ZPK_EXPORT ZPKDataPtr ZPKDataFromHexStringWithError(std::optional<std::string_view> string,
                                                    ZPKErrorPtr* error = nullptr);

/// Like ZPKDataFromHexStringWithError, for a caller that needs no error object. A failure is logged
/// a second time, with the original text.
ZPK_EXPORT ZPKDataPtr ZPKDataFromHexString(std::optional<std::string_view> string);

/// The bytes as lower-case hexadecimal digits without separators, after "0x" if `withPrefix`. Null
/// data is shown like empty data.
ZPK_EXPORT std::string ZPKHexStringFromData(const ZPKDataPtr& data, bool withPrefix);

/// The bytes as text for a person to read. Valid UTF-8 is returned unchanged. In other data,
/// printable ASCII, CR and LF stay unchanged, and each run of other bytes becomes hexadecimal in
/// angle brackets, as in "ok<fffe>done". Not reversible, since a "<" in the text is not escaped.
/// Null data returns "".
ZPK_EXPORT std::string ZPKDataToString(const ZPKDataPtr& data);
