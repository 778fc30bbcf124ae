#pragma once

#include <optional>
#include <string>
#include <string_view>

/// The code points of UTF-8 bytes (RFC 3629); null if they are not valid.
std::optional<std::u32string> decodedUTF8(std::string_view bytes);

/// The UTF-8 bytes of code points.
std::string encodedUTF8(std::u32string_view text);

/// What ZPKDataToString returns: UTF-8 unchanged; otherwise the bytes that are not printable in
/// hexadecimal, between angle brackets.
std::string readableText(std::string_view bytes);

/// Two lower-case digits.
std::string hexOf(char byte);

/// `text` with `replacement` in place of every `part`.
std::string replacedAll(std::string text, std::string_view part, std::string_view replacement);
