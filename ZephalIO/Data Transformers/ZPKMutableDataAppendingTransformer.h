/// @file
/// Ends every chunk with bytes that can be changed.
#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"

/// Appends bytes, such as a line terminator, to every chunk, an empty one included. The bytes may
/// be changed on any thread at any time; nothing else is kept between calls.
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

  /// Appends the bytes. Does nothing for a null chunk.
  void modifyData(ZPKMutableData* data) override;
  /// Does nothing; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The bytes; may be null.
  ZPKDataPtr dataToAppend() const;
  /// Replaces the bytes from the next chunk on; keeps the reference, not a copy.
  void setDataToAppend(ZPKDataPtr dataToAppend);

 private:
  ZPKAtomic<ZPKDataPtr> _dataToAppend;
};

/// A shared appender.
using ZPKMutableDataAppendingTransformerPtr = std::shared_ptr<ZPKMutableDataAppendingTransformer>;
