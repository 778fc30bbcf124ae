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
  TrailingBytes,  // there are bytes after the archive
  NotAllowed,     // an item that no archive has, such as a tag, or no map at the start
  NotCanonical,   // a number or length in more bytes than it needs, or keys out of order
  NotText,        // text that is not UTF-8
};

/// Reads a keyed archive: Documentation/archive-format.md describes the bytes. It accepts exactly
/// what a ZPIArchiveWriter can write, so an archive and its object determine each other.
///
/// It allocates nothing for a length before it has seen the bytes that the length promises, and it
/// does not recurse, so no input can exhaust the memory or the stack.
class ZPIArchiveReader {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A reader of `data`, which it shares. Null if the data is null, empty, or not in all its parts
  /// an archive: domain "CBOR", with a code of ZPIArchiveError. Nothing is logged.
  static std::unique_ptr<ZPIArchiveReader> initForReading(const ZPKDataPtr& data,
                                                          ZPKErrorPtr* error);

  ZPIArchiveReader(Key, ZPKDataPtr data) : _data(std::move(data)) {}

  /// The object under the archive's only key. Null if that is a different key, or if a part of the
  /// object is not of one of the classes. Nothing is logged.
  ZPKObjectPtr decodeObjectForKey(std::string_view key, const ZPKClassSet& classes) const;

 private:
  const ZPKDataPtr _data;
};
