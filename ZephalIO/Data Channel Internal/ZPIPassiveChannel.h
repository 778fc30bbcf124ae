#pragma once

#include <memory>

#include "Data Channel Internal/ZPIChannelBelow.h"
#include "Data Channel/ZPKDataChannel.h"

/// Wraps a channel whose reads may return empty data early, and reads it again until the caller's
/// timeout expires. It has no state and no lock: everything about a read lives in the call.
class ZPIPassiveChannel final : public ZPKDataChannel, public ZPIChannelAbilities {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIPassiveChannel> initWithChannel(ZPKDataChannelPtr channel);

  ZPIPassiveChannel(Key, ZPKDataChannelPtr channel);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  const ZPKDataChannel* openSource() const override { return _channel.openSource(); }

 private:
  ZPKDataPtr readOpened(double timeout, ZPKErrorPtr* error);
  void readInSlices(double timeout, ZPKDataPtr* data, ZPKErrorPtr* error);

  const ZPIChannelBelow _channel;
};
