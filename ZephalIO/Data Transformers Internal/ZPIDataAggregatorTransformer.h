#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"

/// Splits a stream of bytes into units that end with a fixed terminator, and can remove the
/// terminator. Each call outputs one unit; an empty chunk is enough to get the next one. Not
/// thread-safe.
///
/// If terminators are removed, an empty unit looks like no unit. A null or empty terminator, which
/// the factory rejects, is never found.
class ZPIDataAggregatorTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Keeps a copy of `terminator`.
  static std::shared_ptr<ZPIDataAggregatorTransformer> initWithTerminator(
      const ZPKDataPtr& terminator, bool removeTerminator);

  ZPIDataAggregatorTransformer(Key, ZPKDataPtr terminator, bool removeTerminator);

  void modifyData(ZPKMutableData* data) override;
  /// Replaces the buffer by a new, empty one; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The buffered bytes; the next reset replaces the object.
  ZPKMutableDataPtr buffer() const { return _buffer; }
  ZPKDataPtr data2Find() const { return _data2Find; }
  /// Nothing in the library calls it.
  bool removeTerminator() const { return _removeTerminator; }

 private:
  const bool _removeTerminator;
  ZPKMutableDataPtr _buffer;
  const ZPKDataPtr _data2Find;
};

using ZPIDataAggregatorTransformerPtr = std::shared_ptr<ZPIDataAggregatorTransformer>;
