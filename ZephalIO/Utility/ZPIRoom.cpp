#include "Utility/ZPIRoom.h"

#include <new>

#include "Utility/ZPIBlock.h"

ZPIRoom::ZPIRoom(ZPKMutableData* data, size_t size) : _data(*data) {
  try {
    _data._failedSearch.allowIf(ZPIBlock::reserveAtEnd(_data._block, size));
    _isThere = true;
  } catch (const std::bad_alloc&) {
    // As in a read without a buffer, the system call then reports it.
  }
}

ZPIRoom::~ZPIRoom() {
  _data._failedSearch.allowIf(ZPIBlock::cutAt(_data._block, _data._block.length));
}

uint8_t* ZPIRoom::bytes() const {
  const ZPKData::Block& block = _data._block;
  return _isThere ? block.storage + block.head + block.length : nullptr;
}

void ZPIRoom::fill(size_t count) { _data._block.length += count; }
