#pragma once

#include <optional>

#include "Data Channel/ZPKDataChannel.h"

/// What a channel of the library can do for the channel above it, beyond ZPKDataChannel.
///
/// A channel with such abilities implements this in addition to ZPKDataChannel. The channel above
/// asks for them one time, when it is created (see ZPIChannelBelow), and must return the same
/// results without them: a caller's own channel has no abilities, whatever it wraps.
class ZPIChannelAbilities {
 public:
  /// The abilities of `channel`, or null if it has none. They live as long as the channel.
  static ZPIChannelAbilities* of(ZPKDataChannel* channel);

  /// The channel that has the answer to isOpened: this one, or the one below that this one would
  /// ask. It lives as long as this one.
  virtual const ZPKDataChannel* openSource() const = 0;

  /// Removes and returns the whole unit that the next read would return immediately, whatever its
  /// timeout and whether or not the channel is open. Null if none is buffered, or if the channel
  /// cannot tell. Does not ask the channel below.
  virtual ZPKDataPtr takeHeldUnit() { return nullptr; }

  /// Reads like readWithTimeout, but may add the bytes to the end of `held`, which is not empty,
  /// instead of returning them; the result is then empty data. `held` is not touched during the
  /// wait, nor if the read fails. Without a value if the channel cannot do this; nothing was read.
  virtual std::optional<ZPKDataPtr> readOnto(ZPKMutableData* /*held*/, double /*timeout*/,
                                             ZPKErrorPtr* /*error*/) {
    return std::nullopt;
  }

 protected:
  ~ZPIChannelAbilities() = default;
};
