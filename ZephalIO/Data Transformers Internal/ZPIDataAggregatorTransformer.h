#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"

/// Cuts a stream of bytes into units that end in a fixed terminator, and can cut the terminator off
/// as well. One call hands out one unit; an empty chunk is enough for the next one. No lock.
///
/// With the terminator cut off an empty unit looks like no unit. A null or empty terminator, which
/// the factory refuses, is never found.
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
  /// Holds a new, empty buffer afterwards; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The held bytes, until the next reset.
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
