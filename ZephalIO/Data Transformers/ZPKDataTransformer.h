#pragma once

#include <memory>
#include <vector>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKTypes.h"

/// An object that edits a chunk of bytes in place and may hold bytes back between calls.
///
/// The channels that use a transformer hold it strongly and may share it with its creator. It is
/// called by one thread at a time: the thread that reads, or the one that writes. Transformers in a
/// list run in order, each on what the one before has left in the same buffer.
///
///     class Upper final : public ZPKDataTransformer {
///      public:
///       void modifyData(ZPKMutableData* data) override { ... }
///       bool reset(ZPKErrorPtr*) override { return true; }
///     };
class ZPK_EXPORT ZPKDataTransformer {
 public:
  virtual ~ZPKDataTransformer() = default;

  /// Edits `data`, which stays the caller's; afterwards it holds what is to be handed on. It may
  /// grow, shrink, change or become empty, and empty means only that nothing is to be handed on
  /// yet. Must take any buffer, also an empty one, on which a transformer that holds a complete
  /// unit back releases it. Cannot fail: what a transformer detects, it tells through a callback
  /// given at its creation.
  virtual void modifyData(ZPKMutableData* data) = 0;

  /// Drops what is held back and keeps the configuration. True for success; the slot is touched on
  /// failure only. Comes while the channel is closed.
  virtual bool reset(ZPKErrorPtr* error = nullptr) = 0;
};

using ZPKDataTransformerPtr = std::shared_ptr<ZPKDataTransformer>;
using ZPKDataTransformerArray = std::vector<ZPKDataTransformerPtr>;
