#pragma once

#include <memory>

#include "Data Channel Internal/ZPIChannelAbilities.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// Wraps a channel and hands up what it reads in units of one aggregator, which its creator shares.
/// Writes pass. Without an aggregator reads pass too, and reset fails without an error when it has
/// reset the channel below. No lock: reads and reset touch the aggregator and must not overlap.
class ZPIAggregatingTransformerChannel final : public ZPKDataChannel, public ZPIChannelAbilities {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIAggregatingTransformerChannel> initWithChannel(
      ZPKDataChannelPtr channel, ZPKMutableDataAggregatorTransformerPtr aggregatingTransformer);

  ZPIAggregatingTransformerChannel(Key, ZPKDataChannelPtr channel,
                                   ZPKMutableDataAggregatorTransformerPtr aggregatingTransformer);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  /// Without a terminator there is none: held bytes come up together with those of a read.
  ZPKMutableDataPtr takeHeldUnit() override;

 private:
  const ZPKDataChannelPtr _channel;
  const ZPKMutableDataAggregatorTransformerPtr _aggregator;
};
