#pragma once

#include <memory>
#include <string_view>

#include "Data Channel/ZPKDataSerializer.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKError.h"
#include "Utility/ZPKObject.h"

/// The codes of a reader's errors, domain "CBOR".
enum class ZPIArchiveError {
  TooShort = 1,   // the bytes end within an item, or there are none
  TrailingBytes,  // there are bytes behind the archive
  NotAllowed,     // an item that no archive has, such as a tag, or no map at the start
  NotCanonical,   // a number or length that is longer than it need be, or keys out of order
  NotText,        // text that is not UTF-8
};

/// Reads a keyed archive: Documentation/archive-format.md describes the bytes. It accepts exactly
/// what a ZPIArchiveWriter can write, so that an archive and its object determine each other.
///
/// Nothing is allocated for a length before the bytes that it promises have been seen, and nothing
/// recurses, so that no bytes whatever can exhaust the memory or the stack.
class ZPIArchiveReader {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A reader of `data`, which it shares. Null if the data are null, empty, or not an archive in
  /// all their parts; domain "CBOR", code of ZPIArchiveError. Nothing is logged.
  static std::unique_ptr<ZPIArchiveReader> initForReading(const ZPKDataPtr& data,
                                                          ZPKErrorPtr* error);

  ZPIArchiveReader(Key, ZPKDataPtr data) : _data(std::move(data)) {}

  /// The object under the archive's one key. Null if that is another key, or if a part of the
  /// object is of none of the classes.
  ZPKObjectPtr decodeObjectForKey(std::string_view key, const ZPKClassSet& classes) const;

 private:
  const ZPKDataPtr _data;
};
