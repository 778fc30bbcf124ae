#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"

/// Passes each chunk to a callback, which edits it. The callbacks run on the calling thread and
/// must not call the transformer; they may be replaced on any thread.
class ZPIBlockDataTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  using DataBlock = std::function<void(ZPKMutableData* data)>;
  using ResetBlock = std::function<void()>;

  /// A null reset callback is legal and makes reset fail. The data callback must not be null when
  /// modifyData is called; the factory makes sure of that.
  static std::shared_ptr<ZPIBlockDataTransformer> initWithDataBlock(
      DataBlock dataBlock, ResetBlock andResetBlock = nullptr);

  ZPIBlockDataTransformer(Key, DataBlock dataBlock, ResetBlock resetBlock);

  void modifyData(ZPKMutableData* data) override;
  /// Calls the reset callback. Fails without one: domain "zephal-communication", code 6.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  // Nothing in the library calls these four.
  DataBlock dataBlock() const { return *_dataBlock.load(); }
  void setDataBlock(DataBlock dataBlock) { _dataBlock.store(shared(std::move(dataBlock))); }
  ResetBlock resetBlock() const { return *_resetBlock.load(); }
  void setResetBlock(ResetBlock resetBlock) { _resetBlock.store(shared(std::move(resetBlock))); }

 private:
  // Never null. Shared, so that a call costs a reference and not a copy of the captures.
  template <class Block>
  using Shared = std::shared_ptr<const Block>;

  template <class Block>
  static Shared<Block> shared(Block block) {
    return std::make_shared<const Block>(std::move(block));
  }

  ZPKAtomic<Shared<DataBlock>> _dataBlock;
  ZPKAtomic<Shared<ResetBlock>> _resetBlock;
};

using ZPIBlockDataTransformerPtr = std::shared_ptr<ZPIBlockDataTransformer>;
