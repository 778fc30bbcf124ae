#pragma once

#include <cstdint>

#include "Utility/ZPIHeapVector.h"
#include "Utility/ZPKData.h"

/// The bytes that were collected in `bytes`, which is empty afterwards. They are not copied: the
/// result is a ZPKMutableData over the vector's storage, so a layer above can edit it in place. For
/// an empty vector it is ZPKData::data().
ZPKDataPtr ZPIDataGivingUp(ZPIHeapVector<uint8_t>* bytes);
