#include "Utility/ZPIDataGivingUp.h"

#include "Utility/ZPKMutableData.h"

ZPKDataPtr ZPIDataGivingUp(ZPIHeapVector<uint8_t>* bytes) {
  if (bytes->empty()) return ZPKData::data();
  const size_t length = bytes->size();
  const size_t capacity = bytes->capacity();
  return ZPKMutableData::dataWithBytesNoCopy(bytes->release(), length, capacity);
}
