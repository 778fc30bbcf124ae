#include "Data Channel Internal/ZPIChannelBelow.h"

#include <utility>

ZPIChannelBelow::ZPIChannelBelow(ZPKDataChannelPtr channel)
    : _channel(std::move(channel)),
      _abilities(ZPIChannelAbilities::of(_channel.get())),
      _openSource(_abilities == nullptr ? _channel.get() : _abilities->openSource()) {}
