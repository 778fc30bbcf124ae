#pragma once

#include <string_view>

#include "Utility/ZPKData.h"
#include "Utility/ZPKObject.h"

/// Writes a keyed archive: Documentation/archive-format.md describes the bytes. One thread at a
/// time.
class ZPIArchiveWriter {
 public:
  /// A writer in its secure mode, the only one: it takes ZPKDictionary, ZPKString, ZPKNumber,
  /// ZPKData, ZPKArray and null, and no class of anybody else's.
  static ZPIArchiveWriter initRequiringSecureCoding() { return {}; }

  /// Writes one object under a key. What cannot be written, in any part of it, leaves the writer
  /// without bytes for good: text that is not UTF-8, and objects of other classes.
  void encodeObjectForKey(const ZPKObjectPtr& object, std::string_view key);
  /// The archive; null if something could not be written, or nothing was.
  ZPKDataPtr encodedData() const { return _data; }
  /// Lets go of the bytes.
  void finishEncoding() { _data = nullptr; }

 private:
  ZPIArchiveWriter() = default;

  ZPKDataPtr _data;
};
