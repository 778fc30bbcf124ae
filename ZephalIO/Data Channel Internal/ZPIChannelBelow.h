#pragma once

#include "Data Channel Internal/ZPIChannelAbilities.h"
#include "Utility/ZPKMutableData.h"

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
  /// Reads. May add the bytes to the end of `held` instead of returning them, unless that is empty
  /// or null.
  ZPKDataPtr readOnto(ZPKMutableData* held, double timeout, ZPKErrorPtr* error) const {
    const bool mayAdd = _abilities != nullptr && held != nullptr && held->length() > 0;
    return mayAdd ? readWithAbilities(held, timeout, error)
                  : _channel->readWithTimeout(timeout, error);
  }

 private:
  ZPKDataPtr readWithAbilities(ZPKMutableData* held, double timeout, ZPKErrorPtr* error) const;

  const ZPKDataChannelPtr _channel;
  ZPIChannelAbilities* const _abilities;  // null if the channel has none
  const ZPKDataChannel* const _openSource;
};
