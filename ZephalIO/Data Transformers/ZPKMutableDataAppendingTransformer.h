#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"

/// Adds bytes, such as a line terminator, to the end of every chunk, an empty one included. The
/// bytes may be changed on any thread at any time; nothing else is kept between calls.
class ZPK_EXPORT ZPKMutableDataAppendingTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A transformer that appends a copy of `dataToAppend`; null appends nothing.
  static std::shared_ptr<ZPKMutableDataAppendingTransformer> initWithDataToAppend(
      const ZPKDataPtr& dataToAppend);

  ZPKMutableDataAppendingTransformer(Key, ZPKDataPtr dataToAppend);
  ~ZPKMutableDataAppendingTransformer() override;

  /// Adds the bytes. A null chunk is left alone.
  void modifyData(ZPKMutableData* data) override;
  /// Does nothing; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The bytes; may be null.
  ZPKDataPtr dataToAppend() const;
  /// Replaces the bytes, keeping the reference it is given, from the next chunk on.
  void setDataToAppend(ZPKDataPtr dataToAppend);

 private:
  ZPKAtomic<ZPKDataPtr> _dataToAppend;
};

using ZPKMutableDataAppendingTransformerPtr = std::shared_ptr<ZPKMutableDataAppendingTransformer>;
