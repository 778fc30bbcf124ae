#pragma once

#include "Data Channel Internal/ZPIChannelAbilities.h"

/// The channel below a decorator, held strongly. Uses that channel's abilities, if it has any, with
/// the same results as without them. What needs no ability goes to the channel itself (`->`). May
/// be used on as many threads as the channel.
class ZPIChannelBelow {
 public:
  /// `channel` must not be null.
  explicit ZPIChannelBelow(ZPKDataChannelPtr channel);

  ZPKDataChannel* operator->() const { return _channel.get(); }
  ZPKDataChannel& operator*() const { return *_channel; }

  /// Whether the channel is open. Asks the channel that has the answer, and not the layers in
  /// between, which would only pass the question on.
  bool isOpened() const { return _openSource->isOpened(); }
  const ZPKDataChannel* openSource() const { return _openSource; }

  /// See ZPIChannelAbilities.
  ZPKDataPtr takeHeldUnit() const {
    return _abilities == nullptr ? nullptr : _abilities->takeHeldUnit();
  }

 private:
  const ZPKDataChannelPtr _channel;
  ZPIChannelAbilities* const _abilities;  // null if the channel has none
  const ZPKDataChannel* const _openSource;
};
