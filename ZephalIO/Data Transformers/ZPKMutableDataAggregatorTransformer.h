#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"

/// Cuts a stream of bytes into units that end in a terminator, which can be changed at any time.
///
/// Bytes are held until the terminator has come; one call hands out one unit, terminator included.
/// A second complete unit comes out with the next call, for which an empty chunk is enough. The
/// whole of the held bytes counts on every call, so a terminator is found however it was split, and
/// bytes that came under an old terminator are cut at the new one. No terminator, null or empty,
/// lets everything through. Nothing limits what is held.
///
/// The terminator may be changed on any thread, also during modifyData, which then finishes with
/// the old one; everything else belongs to one thread at a time.
class ZPK_EXPORT ZPKMutableDataAggregatorTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// An aggregator that cuts at a copy of `terminator`, which may be null or empty.
  static std::shared_ptr<ZPKMutableDataAggregatorTransformer> initWithTerminator(
      const ZPKDataPtr& terminator);

  ZPKMutableDataAggregatorTransformer(Key, ZPKDataPtr terminator);
  ~ZPKMutableDataAggregatorTransformer() override;

  /// Adds the chunk to what is held and leaves the first complete unit in it, or nothing. A null
  /// chunk changes nothing, not even when a complete unit is held.
  void modifyData(ZPKMutableData* data) override;
  /// Drops the held bytes. Always true; the terminator stays.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The held bytes: always the same object, never null. Do not touch it while modifyData or reset
  /// runs.
  ZPKMutableDataPtr buffer() const;

  /// The terminator; may be null.
  ZPKDataPtr data2Find() const;
  /// Replaces the terminator, keeping the reference it is given. Nothing is searched or handed out
  /// before the next modifyData.
  void setData2Find(ZPKDataPtr data2Find);

 private:
  friend ZPKMutableDataPtr ZPITakeHeldUnit(ZPKMutableDataAggregatorTransformer& aggregator);

  const ZPKData* currentTerminator();
  void cutChunk(const ZPKData& terminator, ZPKMutableData* chunk);

  const ZPKMutableDataPtr _buffer;
  ZPKAtomic<ZPKDataPtr> _data2Find;
  ZPKAtomic<ZPKDataPtr>::Snapshot _terminator;  // modifyData's own view of _data2Find
  ZPKDataPtr _terminatorCopy;  // what a call works with if the terminator is a ZPKMutableData
};

using ZPKMutableDataAggregatorTransformerPtr = std::shared_ptr<ZPKMutableDataAggregatorTransformer>;
