#pragma once

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// Like createAggregatingTransformerChannel, except that it rejects nothing: without an aggregator
/// reads are not split, and reset resets the channel below and then fails without an error. This
/// way a recorder keeps recording even if its aggregator was set to null.
ZPKDataChannelPtr ZPIAggregatingChannel(const ZPKDataChannelPtr& channel,
                                        const ZPKMutableDataAggregatorTransformerPtr& aggregator);
