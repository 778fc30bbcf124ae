#pragma once

#include <utility>

#include "Data Channel/ZPKDataChannel.h"

namespace support {

/// A caller's own channel that passes everything down, and nothing of what the channel below can do
/// beyond its contract.
class PassingChannel final : public ZPKDataChannel {
 public:
  explicit PassingChannel(ZPKDataChannelPtr channel) : _channel(std::move(channel)) {}

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override {
    return _channel->openWithTimeout(timeout, error);
  }
  bool close(ZPKErrorPtr* error) override { return _channel->close(error); }
  bool reset(ZPKErrorPtr* error) override { return _channel->reset(error); }
  bool isOpened() const override {
    ++questions;
    return _channel->isOpened();
  }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override {
    ++reads;
    return _channel->readWithTimeout(timeout, error);
  }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override {
    return _channel->write(data, error);
  }

  mutable int questions = 0;  // how often isOpened was called
  int reads = 0;

 private:
  const ZPKDataChannelPtr _channel;
};

}  // namespace support
