#include "Data Channel Internal/ZPIChannelBelow.h"

#include <utility>

ZPIChannelBelow::ZPIChannelBelow(ZPKDataChannelPtr channel)
    : _channel(std::move(channel)),
      _abilities(ZPIChannelAbilities::of(_channel.get())),
      _openSource(_abilities == nullptr ? _channel.get() : _abilities->openSource()) {}

ZPKDataPtr ZPIChannelBelow::readWithAbilities(ZPKMutableData* held, double timeout,
                                              ZPKErrorPtr* error) const {
  std::optional<ZPKDataPtr> data = _abilities->readOnto(held, timeout, error);
  return data.has_value() ? *std::move(data) : _channel->readWithTimeout(timeout, error);
}
