#include "Data Channel Internal/ZPIChannelTransformer.h"

#include <utility>

#include "Data Channel Internal/ZPIResetWalk.h"
#include "Utility/ZPIUnshare.h"

std::shared_ptr<ZPIChannelTransformer> ZPIChannelTransformer::initWithChannel(
    ZPKDataChannelPtr channel, ZPKDataTransformerArray readTransformers,
    ZPKDataTransformerArray writeTransformers, bool allowPreread) {
  return std::make_shared<ZPIChannelTransformer>(Key(), std::move(channel),
                                                 std::move(readTransformers),
                                                 std::move(writeTransformers), allowPreread);
}

ZPIChannelTransformer::ZPIChannelTransformer(Key, ZPKDataChannelPtr channel,
                                             ZPKDataTransformerArray readTransformers,
                                             ZPKDataTransformerArray writeTransformers,
                                             bool allowPreread)
    : _channel(std::move(channel)),
      _readTransformers(std::move(readTransformers)),
      _writeTransformers(std::move(writeTransformers)),
      _preread(allowPreread) {}

bool ZPIChannelTransformer::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel->openWithTimeout(timeout, error);
}

bool ZPIChannelTransformer::close(ZPKErrorPtr* error) { return _channel->close(error); }

bool ZPIChannelTransformer::reset(ZPKErrorPtr* error) {
  ZPIResetWalk walk;
  for (const auto& transformer : _readTransformers) walk.reset(*transformer);
  for (const auto& transformer : _writeTransformers) walk.reset(*transformer);
  walk.reset(*_channel);
  return walk.finish(error);
}

bool ZPIChannelTransformer::isOpened() const { return _channel.isOpened(); }

ZPKDataPtr ZPIChannelTransformer::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _preread ? readHeldFirst(timeout, error) : readBelow(timeout, error);
}

// Not inlined, so that the usual read stays short.
[[gnu::noinline]] ZPKDataPtr ZPIChannelTransformer::readHeldFirst(double timeout,
                                                                  ZPKErrorPtr* error) {
  auto held = ZPKMutableData::data();
  modifyData(held.get());
  if (held->length() != 0) return held;
  return readBelow(timeout, error);
}

inline ZPKDataPtr ZPIChannelTransformer::readBelow(double timeout, ZPKErrorPtr* error) {
  ZPKDataPtr data = _channel->readWithTimeout(timeout, error);
  if (data != nullptr) modifyData(ZPIUnshare(&data));
  return data;
}

bool ZPIChannelTransformer::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  if (data == nullptr) return false;
  const ZPKMutableDataPtr copy = data->mutableCopy();
  for (const auto& transformer : _writeTransformers) transformer->modifyData(copy.get());
  return _channel->write(copy, error);
}

void ZPIChannelTransformer::modifyData(ZPKMutableData* data) {
  for (const auto& transformer : _readTransformers) transformer->modifyData(data);
}
