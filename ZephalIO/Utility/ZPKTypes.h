/// @file
/// Small types that every layer uses, and the pointer aliases of the classes that are passed
/// around.
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
/// Bytes that can be edited; everyone who holds them sees the edits.
using ZPKMutableDataPtr = std::shared_ptr<ZPKMutableData>;
/// A failure; an error slot is a `ZPKErrorPtr*`, and null where the caller wants no error.
using ZPKErrorPtr = std::shared_ptr<const ZPKError>;
/// Options of a channel; null stands for none.
using ZPKOptionsPtr = std::shared_ptr<ZPKOptions>;
/// A compiled regular expression; may be null.
using ZPKRegexPtr = std::shared_ptr<ZPKRegex>;
/// A parsed URL; null if a text was not one.
using ZPKURLPtr = std::shared_ptr<ZPKURL>;

/// The location of something that was not found. The same number on every system, hence 64 bits: a
/// 32-bit size_t could not hold it.
inline constexpr uint64_t ZPKNotFound = 0x7fffffffffffffff;

/// A range of bytes or of code points; each use says which. A location of ZPKNotFound means that
/// there is no such range.
// Frozen: callers' programs are compiled with its layout. See CONTRIBUTING, The binary interface.
struct ZPKRange {
  /// Where the range begins, counted from 0, or ZPKNotFound.
  uint64_t location = ZPKNotFound;
  /// How long it is.
  uint64_t length = 0;

  /// The same place and length.
  friend bool operator==(const ZPKRange&, const ZPKRange&) = default;
};
