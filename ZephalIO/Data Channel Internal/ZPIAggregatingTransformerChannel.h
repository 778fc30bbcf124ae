#pragma once

#include <memory>

#include "Data Channel Internal/ZPIChannelBelow.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// Wraps a channel and returns the bytes it reads in units of one aggregator, which is shared with
/// its creator. Writes pass. Without an aggregator reads pass too, and reset resets the channel
/// below and then fails without an error. There is no lock: reads and reset touch the aggregator
/// and must not overlap.
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

  const ZPKDataChannel* openSource() const override { return _channel.openSource(); }
  /// Null without a terminator: the buffered bytes are then returned with those of the next read.
  ZPKDataPtr takeHeldUnit() override;

 private:
  const ZPIChannelBelow _channel;
  const ZPKMutableDataAggregatorTransformerPtr _aggregator;
  ZPKMutableData* const _held;  // the aggregator's buffer, always the same; null without one
};
