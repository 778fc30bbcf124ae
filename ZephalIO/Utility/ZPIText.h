// UTF-8 text (RFC 3629): its validity, and the number and positions of its code points.
#pragma once

#include <cstddef>
#include <string_view>

#include "Utility/ZPKTypes.h"

/// Whether `byte` continues a code point instead of beginning one.
inline bool ZPIIsContinuationByte(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// Whether `text` is valid UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool ZPIIsValidUTF8(std::string_view text);

/// The number of code points in valid UTF-8.
size_t ZPICodePointCount(std::string_view text);

/// The byte offset at which code point `index` of valid UTF-8 begins; the length of the text if it
/// has no more than `index` code points.
size_t ZPIByteOffsetOfCodePoint(std::string_view text, uint64_t index);

/// The part of valid UTF-8 in `range`, which counts code points and is limited to the text.
std::string_view ZPITextInRange(std::string_view text, ZPKRange range);
