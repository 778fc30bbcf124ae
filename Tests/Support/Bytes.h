// Bytes as tests write them down and compare them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Utility/ZPKMutableData.h"

namespace support {

/// Immutable data with these bytes.
ZPKDataPtr dataOf(std::string_view bytes);

/// A buffer with these bytes in a separate block of memory, which can change owners.
ZPKMutableDataPtr chunkOf(std::string_view bytes);

/// A buffer with these bytes. If they are few, they lie in the same block of memory as the buffer.
ZPKMutableDataPtr unitOf(std::string_view bytes);

/// Adds bytes at the end of a buffer.
void append(const ZPKMutableDataPtr& buffer, std::string_view bytes);

/// The bytes of `data`, valid UTF-8 or not; null for null.
std::optional<std::string> bytesOf(const ZPKDataPtr& data);

}  // namespace support
