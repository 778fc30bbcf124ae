#include "Data Channel Internal/ZPIAggregatingTransformerChannel.h"

#include <utility>

#include "Data Channel Internal/ZPIResetWalk.h"
#include "Data Transformers Internal/ZPITakeHeldUnit.h"
#include "Utility/ZPIUnshare.h"

std::shared_ptr<ZPIAggregatingTransformerChannel> ZPIAggregatingTransformerChannel::initWithChannel(
    ZPKDataChannelPtr channel, ZPKMutableDataAggregatorTransformerPtr aggregatingTransformer) {
  return std::make_shared<ZPIAggregatingTransformerChannel>(Key(), std::move(channel),
                                                            std::move(aggregatingTransformer));
}

ZPIAggregatingTransformerChannel::ZPIAggregatingTransformerChannel(
    Key, ZPKDataChannelPtr channel, ZPKMutableDataAggregatorTransformerPtr aggregatingTransformer)
    : _channel(std::move(channel)),
      _aggregator(std::move(aggregatingTransformer)),
      _held(_aggregator == nullptr ? nullptr : _aggregator->buffer().get()) {}

bool ZPIAggregatingTransformerChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel->openWithTimeout(timeout, error);
}

bool ZPIAggregatingTransformerChannel::close(ZPKErrorPtr* error) { return _channel->close(error); }

bool ZPIAggregatingTransformerChannel::reset(ZPKErrorPtr* error) {
  ZPIResetWalk walk;
  if (_aggregator != nullptr) {
    walk.reset(*_aggregator);
  } else {
    walk.resetNothing();
  }
  walk.reset(*_channel);
  return walk.finish(error);
}

bool ZPIAggregatingTransformerChannel::isOpened() const { return _channel.isOpened(); }

ZPKDataPtr ZPIAggregatingTransformerChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPKDataPtr data = takeHeldUnit();
  if (data != nullptr) return data;
  data = _channel.readOnto(_held, timeout, error);
  if (data == nullptr) return data;
  ZPKMutableData* const chunk = ZPIUnshare(&data);
  if (_aggregator != nullptr) _aggregator->modifyData(chunk);
  return data;
}

bool ZPIAggregatingTransformerChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return _channel->write(data, error);
}

ZPKDataPtr ZPIAggregatingTransformerChannel::takeHeldUnit() {
  return _aggregator == nullptr ? nullptr : ZPITakeHeldUnit(*_aggregator);
}
