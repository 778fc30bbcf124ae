#pragma once

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKMutableData.h"

/// What a channel of the library can do for the channel above it, beyond ZPKDataChannel.
///
/// A channel with such abilities implements this in addition to ZPKDataChannel. A channel that uses
/// them asks the channel below one time, when it is created, and must return the same results
/// without them: a caller's own channel has no abilities, whatever it wraps.
class ZPIChannelAbilities {
 public:
  /// The abilities of `channel`, or null if it has none. They live as long as the channel.
  static ZPIChannelAbilities* of(ZPKDataChannel* channel);

  /// Removes and returns the whole unit that the next read would return immediately, whatever its
  /// timeout; null if none is buffered. Does not ask the channel below.
  virtual ZPKMutableDataPtr takeHeldUnit() = 0;

 protected:
  ~ZPIChannelAbilities() = default;
};
