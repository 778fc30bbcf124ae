#pragma once

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKMutableData.h"

/// What a channel of the library can do for the channel above it, beyond ZPKDataChannel.
///
/// A channel that can do it implements this beside ZPKDataChannel. A channel that makes use of it
/// asks the one below once, when it is made, and must give the same results without it: a caller's
/// own channel has no abilities, whatever it wraps.
class ZPIChannelAbilities {
 public:
  /// The abilities of `channel`, or null if it has none. They live as long as the channel.
  static ZPIChannelAbilities* of(ZPKDataChannel* channel);

  /// The whole unit that the next read would return at once, whatever its timeout; null if none is
  /// held. The channel below is not asked.
  virtual ZPKMutableDataPtr takeHeldUnit() = 0;

 protected:
  ~ZPIChannelAbilities() = default;
};
