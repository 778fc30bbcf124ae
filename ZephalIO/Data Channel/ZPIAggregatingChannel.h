#pragma once

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// As createAggregatingTransformerChannel, except that nothing is refused: without an aggregator
/// reads come uncut, and a reset that has reset the channel below fails without an error. A
/// recorder, whose aggregator anybody may take away, records on in that way.
ZPKDataChannelPtr ZPIAggregatingChannel(const ZPKDataChannelPtr& channel,
                                        const ZPKMutableDataAggregatorTransformerPtr& aggregator);
