#pragma once

#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// What modifyData would leave in an empty chunk while there is a terminator: the first whole unit
/// among the held bytes, or null if there is none. Spares the chunk and the move into it.
ZPKMutableDataPtr ZPITakeHeldUnit(ZPKMutableDataAggregatorTransformer& aggregator);
