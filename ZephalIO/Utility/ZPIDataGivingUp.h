#pragma once

#include <cstdint>

#include "Utility/ZPIHeapVector.h"
#include "Utility/ZPKData.h"

/// The bytes that were collected in `bytes`, which is empty afterwards. Nothing is copied: they are
/// a ZPKMutableData over the vector's storage, so that a layer above can edit them in place. An
/// empty vector gives ZPKData::data().
ZPKDataPtr ZPIDataGivingUp(ZPIHeapVector<uint8_t>* bytes);
