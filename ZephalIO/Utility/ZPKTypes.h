// Small types that every layer uses, and the pointer aliases of the classes that are passed around.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

class ZPKData;
class ZPKMutableData;
class ZPKError;
class ZPKOptions;
class ZPKRegex;
class ZPKURL;

/// Immutable bytes; null is a legal value wherever one is passed.
using ZPKDataPtr = std::shared_ptr<const ZPKData>;
using ZPKMutableDataPtr = std::shared_ptr<ZPKMutableData>;
using ZPKErrorPtr = std::shared_ptr<const ZPKError>;
using ZPKOptionsPtr = std::shared_ptr<ZPKOptions>;
using ZPKRegexPtr = std::shared_ptr<ZPKRegex>;
using ZPKURLPtr = std::shared_ptr<ZPKURL>;

/// The location of something that was not found. The same number on every system, hence 64 bits: a
/// 32-bit size_t could not hold it.
inline constexpr uint64_t ZPKNotFound = 0x7fffffffffffffff;

/// A range of bytes or of code points; each use says which. A location of ZPKNotFound means that
/// there is no such range.
// Frozen: callers' programs are compiled with its layout. See CONTRIBUTING, The binary interface.
struct ZPKRange {
  uint64_t location = ZPKNotFound;
  uint64_t length = 0;

  friend bool operator==(const ZPKRange&, const ZPKRange&) = default;
};
