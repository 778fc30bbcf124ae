#pragma once

#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// Removes and returns the first whole unit of the buffered bytes; null if there is none, or no
/// terminator. This is what modifyData would put into an empty chunk, without the cost of the chunk
/// and of the move into it.
inline ZPKDataPtr ZPITakeHeldUnit(ZPKMutableDataAggregatorTransformer& aggregator) {
  if (aggregator._buffer->length() == 0) return nullptr;
  const ZPKData* const terminator = aggregator.currentTerminator();
  return terminator == nullptr ? nullptr : aggregator._buffer->takeThrough(*terminator);
}
