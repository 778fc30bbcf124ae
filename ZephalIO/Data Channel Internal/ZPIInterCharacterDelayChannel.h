#pragma once

#include <cstdint>
#include <memory>

#include "Data Channel/ZPKDataChannel.h"

/// Wraps a channel and writes to it one byte at a time, with a pause before each (usleep(3)). There
/// is no lock: the bytes of a second writer can get in between.
class ZPIInterCharacterDelayChannel final : public ZPKDataChannel {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIInterCharacterDelayChannel> initWithChannel(ZPKDataChannelPtr channel,
                                                                        uint32_t microSecondDelay);

  ZPIInterCharacterDelayChannel(Key, ZPKDataChannelPtr channel, uint32_t microSecondDelay);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  const ZPKDataChannelPtr _channel;
  const uint32_t _microSecondDelay;
};
