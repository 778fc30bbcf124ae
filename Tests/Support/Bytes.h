// Bytes as tests write them down and compare them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Utility/ZPKMutableData.h"

namespace support {

/// Immutable data with these bytes.
ZPKDataPtr dataOf(std::string_view bytes);

/// A buffer with these bytes in a block of memory of their own, which can change hands.
ZPKMutableDataPtr chunkOf(std::string_view bytes);

/// A buffer with these bytes that lies in one block of memory with them, if they are few.
ZPKMutableDataPtr unitOf(std::string_view bytes);

/// Adds bytes at the end of a buffer.
void append(const ZPKMutableDataPtr& buffer, std::string_view bytes);

/// The bytes of `data`, valid UTF-8 or not; null for null.
std::optional<std::string> bytesOf(const ZPKDataPtr& data);

}  // namespace support
