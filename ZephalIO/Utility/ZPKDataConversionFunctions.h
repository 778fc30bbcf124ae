// Readable text from bytes, and bytes from hexadecimal text. Pure functions, safe on any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKTypes.h"

/// The bytes that a row of hexadecimal digits names, the first pair giving the first byte. Digits
/// of both cases are taken; an odd row gains one "0" in front. If the text begins with "0x" (lower
/// case), every "0x" in it is removed first. "" and "0x" give empty data.
///
/// Null if the text is null or anything else is in it, a blank or a sign included: domain
/// "zephal-dataconversion", code 1.
ZPK_EXPORT ZPKDataPtr ZPKDataFromHexStringWithError(std::optional<std::string_view> string,
                                                    ZPKErrorPtr* error = nullptr);

/// As ZPKDataFromHexStringWithError, for a caller that wants no error object. A failure is logged a
/// second time, with the text as it was given.
ZPK_EXPORT ZPKDataPtr ZPKDataFromHexString(std::optional<std::string_view> string);

/// The bytes as lower-case hexadecimal digits without separators, behind "0x" if `withPrefix`.
/// Null data is shown as empty data.
ZPK_EXPORT std::string ZPKHexStringFromData(const ZPKDataPtr& data, bool withPrefix);

/// The bytes as text for a reader: valid UTF-8 as it is; otherwise printable ASCII and line breaks
/// as they are, and each run of other bytes in hexadecimal between angle brackets, as in
/// "ok<fffe>done". Not reversible, since a "<" of the text is not escaped. Null data gives "".
ZPK_EXPORT std::string ZPKDataToString(const ZPKDataPtr& data);
