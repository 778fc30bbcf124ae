#include "Utility/ZPIDataGivingUp.h"

#include <cstdlib>
#include <new>

#include "Utility/ZPKMutableData.h"

ZPKDataPtr ZPIDataGivingUp(ZPIHeapVector<uint8_t>* bytes) {
  if (bytes->empty()) return ZPKData::data();
  const size_t length = bytes->size();
  const size_t capacity = bytes->capacity();
  uint8_t* const storage = bytes->release();
  try {
    return ZPKMutableData::dataWithBytesNoCopy(storage, length, capacity);
  } catch (const std::bad_alloc&) {
    std::free(storage);
    throw;
  }
}
