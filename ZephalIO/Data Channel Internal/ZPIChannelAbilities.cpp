#include "Data Channel Internal/ZPIChannelAbilities.h"

// The one place that asks what a channel is. When a factory puts a channel on top of another, all
// that it knows of the lower one's type is the contract.
ZPIChannelAbilities* ZPIChannelAbilities::of(ZPKDataChannel* channel) {
  return dynamic_cast<ZPIChannelAbilities*>(channel);
}
