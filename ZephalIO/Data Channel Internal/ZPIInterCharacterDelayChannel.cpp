#include "Data Channel Internal/ZPIInterCharacterDelayChannel.h"

#include <unistd.h>

#include <utility>

std::shared_ptr<ZPIInterCharacterDelayChannel> ZPIInterCharacterDelayChannel::initWithChannel(
    ZPKDataChannelPtr channel, uint32_t microSecondDelay) {
  return std::make_shared<ZPIInterCharacterDelayChannel>(Key(), std::move(channel),
                                                         microSecondDelay);
}

ZPIInterCharacterDelayChannel::ZPIInterCharacterDelayChannel(Key, ZPKDataChannelPtr channel,
                                                             uint32_t microSecondDelay)
    : _channel(std::move(channel)), _microSecondDelay(microSecondDelay) {}

bool ZPIInterCharacterDelayChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel->openWithTimeout(timeout, error);
}

bool ZPIInterCharacterDelayChannel::close(ZPKErrorPtr* error) { return _channel->close(error); }

bool ZPIInterCharacterDelayChannel::reset(ZPKErrorPtr* error) { return _channel->reset(error); }

bool ZPIInterCharacterDelayChannel::isOpened() const { return _channel->isOpened(); }

ZPKDataPtr ZPIInterCharacterDelayChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel->readWithTimeout(timeout, error);
}

bool ZPIInterCharacterDelayChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  if (data == nullptr) return true;
  for (size_t position = 0; position < data->length(); ++position) {
    ::usleep(_microSecondDelay);
    if (!_channel->write(data->subdata({position, 1}), error)) return false;
  }
  return true;
}
