/// @file
/// Splits a stream at a terminator that can be changed.
#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"

/// Splits a stream of bytes into units that end with a terminator, which can be changed at any
/// time.
///
/// Bytes are buffered until the terminator arrives; each call outputs one unit, terminator
/// included. The next call outputs the second complete unit; an empty chunk is enough for that.
/// Every call considers all buffered bytes, so a terminator is found however it was split, and
/// bytes that arrived under an old terminator are split at the new one. Without a terminator (null
/// or empty) everything passes. Nothing limits the buffer.
///
/// The terminator may be changed on any thread, also during modifyData, which then finishes with
/// the old one. Use everything else on one thread at a time.
class ZPK_EXPORT ZPKMutableDataAggregatorTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// An aggregator that splits at a copy of `terminator`, which may be null or empty.
  static std::shared_ptr<ZPKMutableDataAggregatorTransformer> initWithTerminator(
      const ZPKDataPtr& terminator);

  ZPKMutableDataAggregatorTransformer(Key, ZPKDataPtr terminator);
  ~ZPKMutableDataAggregatorTransformer() override;

  /// Adds the chunk to the buffered bytes and leaves the first complete unit in it, or nothing. A
  /// null chunk changes nothing, even if a complete unit is buffered.
  void modifyData(ZPKMutableData* data) override;
  /// Drops the buffered bytes and keeps the terminator; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The buffered bytes: always the same object, never null. Do not touch it while modifyData or
  /// reset runs.
  ZPKMutableDataPtr buffer() const;

  /// The terminator; may be null.
  ZPKDataPtr data2Find() const;
  /// Replaces the terminator; keeps the reference, not a copy. Nothing is searched or output before
  /// the next modifyData.
  void setData2Find(ZPKDataPtr data2Find);

 private:
  friend ZPKDataPtr ZPITakeHeldUnit(ZPKMutableDataAggregatorTransformer& aggregator);

  const ZPKData* currentTerminator();
  const ZPKData* copyOfTerminator();
  void cutChunk(const ZPKData& terminator, ZPKMutableData* chunk);

  const ZPKMutableDataPtr _buffer;
  ZPKAtomic<ZPKDataPtr> _data2Find;
  ZPKAtomic<ZPKDataPtr>::Snapshot _terminator;  // modifyData's own view of _data2Find
  ZPKDataPtr _terminatorCopy;  // used during a call if the terminator is a ZPKMutableData
};

/// A shared aggregator.
using ZPKMutableDataAggregatorTransformerPtr = std::shared_ptr<ZPKMutableDataAggregatorTransformer>;
