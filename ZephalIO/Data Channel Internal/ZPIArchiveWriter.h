#pragma once

#include <string_view>

#include "Utility/ZPKData.h"
#include "Utility/ZPKObject.h"

/// Writes a keyed archive: Documentation/archive-format.md describes the bytes. For one thread at a
/// time.
class ZPIArchiveWriter {
 public:
  /// A writer in its secure mode, the only one: it accepts ZPKDictionary, ZPKString, ZPKNumber,
  /// ZPKData, ZPKArray and null, and no other class.
  static ZPIArchiveWriter initRequiringSecureCoding() { return {}; }

  /// Writes one object under a key, and replaces what was written before. If a part of it cannot be
  /// written, the writer has no bytes afterwards: text that is not UTF-8, and other classes.
  void encodeObjectForKey(const ZPKObjectPtr& object, std::string_view key);
  /// The archive; null if something could not be written, or if nothing was written.
  ZPKDataPtr encodedData() const { return _data; }
  /// Releases the bytes.
  void finishEncoding() { _data = nullptr; }

 private:
  ZPIArchiveWriter() = default;

  ZPKDataPtr _data;
};
