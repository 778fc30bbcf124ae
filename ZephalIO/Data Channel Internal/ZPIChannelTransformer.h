#pragma once

#include <memory>

#include "Data Channel Internal/ZPIChannelBelow.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKDataTransformer.h"

/// Wraps a channel and runs transformers on the traffic: one list on reads, one on writes. It
/// buffers no bytes itself, only its transformers do. There is no lock: a read uses only the read
/// list, and a write only the write list.
class ZPIChannelTransformer final : public ZPKDataChannel, public ZPIChannelAbilities {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIChannelTransformer> initWithChannel(
      ZPKDataChannelPtr channel, ZPKDataTransformerArray readTransformers,
      ZPKDataTransformerArray writeTransformers, bool allowPreread = false);

  ZPIChannelTransformer(Key, ZPKDataChannelPtr channel, ZPKDataTransformerArray readTransformers,
                        ZPKDataTransformerArray writeTransformers, bool allowPreread);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  const ZPKDataChannel* openSource() const override { return _channel.openSource(); }

  /// Runs the read transformers on `data`.
  void modifyData(ZPKMutableData* data);

 private:
  ZPKDataPtr readHeldFirst(double timeout, ZPKErrorPtr* error);
  ZPKDataPtr readBelow(double timeout, ZPKErrorPtr* error);

  const ZPIChannelBelow _channel;
  const ZPKDataTransformerArray _readTransformers;
  const ZPKDataTransformerArray _writeTransformers;
  const bool _preread;
};
