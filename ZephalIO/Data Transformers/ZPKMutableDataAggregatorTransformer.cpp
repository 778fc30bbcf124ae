#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

#include <utility>

ZPKMutableDataAggregatorTransformerPtr ZPKMutableDataAggregatorTransformer::initWithTerminator(
    const ZPKDataPtr& terminator) {
  return std::make_shared<ZPKMutableDataAggregatorTransformer>(
      Key(), terminator == nullptr ? nullptr : terminator->copy());
}

ZPKMutableDataAggregatorTransformer::ZPKMutableDataAggregatorTransformer(Key, ZPKDataPtr terminator)
    : _buffer(ZPKMutableData::data()), _data2Find(std::move(terminator)), _terminator(_data2Find) {}

void ZPKMutableDataAggregatorTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  // A copy, so that a caller who edits a mutable terminator meanwhile does not move the cut.
  const ZPKDataPtr& current = _terminator.current();
  const ZPKDataPtr terminator = current == nullptr ? nullptr : current->copy();
  if (_buffer->length() == 0) {
    if (terminator != nullptr && terminator->length() > 0) cutChunk(*terminator, data);
    return;
  }
  _buffer->appendGivingUp(data);
  if (terminator == nullptr || terminator->length() == 0) {
    data->swap(*_buffer);
    return;
  }
  const ZPKRange found = _buffer->find(*terminator);
  if (found.location == ZPKNotFound) return;
  _buffer->moveFirst(found.location + found.length, data);
}

// With nothing held, the chunk is the whole buffer: a unit that fills it, the usual response, is
// handed on as it lies.
void ZPKMutableDataAggregatorTransformer::cutChunk(const ZPKData& terminator,
                                                   ZPKMutableData* chunk) {
  const ZPKRange found = chunk->find(terminator);
  if (found.location == ZPKNotFound) {
    _buffer->appendGivingUp(chunk);
    return;
  }
  const size_t unitLength = found.location + found.length;
  if (unitLength == chunk->length()) return;
  _buffer->swap(*chunk);
  _buffer->moveFirst(unitLength, chunk);
}

bool ZPKMutableDataAggregatorTransformer::reset(ZPKErrorPtr* /*error*/) {
  _buffer->setContents(*ZPKData::data());
  return true;
}
