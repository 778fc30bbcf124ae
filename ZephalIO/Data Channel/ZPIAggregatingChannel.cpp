#include "Data Channel/ZPIAggregatingChannel.h"

#include "Data Channel Internal/ZPIAggregatingTransformerChannel.h"

ZPKDataChannelPtr ZPIAggregatingChannel(const ZPKDataChannelPtr& channel,
                                        const ZPKMutableDataAggregatorTransformerPtr& aggregator) {
  return ZPIAggregatingTransformerChannel::initWithChannel(channel, aggregator);
}
