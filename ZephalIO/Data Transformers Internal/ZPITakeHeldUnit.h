#pragma once

#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// Removes and returns the first whole unit of the buffered bytes; null if there is none, or no
/// terminator. This is what modifyData would put into an empty chunk, without the cost of the chunk
/// and of the move into it.
ZPKDataPtr ZPITakeHeldUnit(ZPKMutableDataAggregatorTransformer& aggregator);
