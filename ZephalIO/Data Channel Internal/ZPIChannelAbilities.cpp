#include "Data Channel Internal/ZPIChannelAbilities.h"

// The one place that asks what a channel is. By the time two channels meet, in a factory, nothing
// but the pointer to the contract is left of the type of the lower one.
ZPIChannelAbilities* ZPIChannelAbilities::of(ZPKDataChannel* channel) {
  return dynamic_cast<ZPIChannelAbilities*>(channel);
}
