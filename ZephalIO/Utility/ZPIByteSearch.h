// The one forward search for bytes.
#pragma once

#include <cstddef>
#include <cstdint>

/// The offset of the first `needle` in `bytes`; ZPKNotFound if there is none. An empty needle is
/// never found.
uint64_t ZPIFindBytes(const uint8_t* bytes, size_t length, const uint8_t* needle,
                      size_t needleLength);
