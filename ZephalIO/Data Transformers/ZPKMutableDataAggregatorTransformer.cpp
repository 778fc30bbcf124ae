#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

#include <utility>

#include "Utility/ZPIRangeEnd.h"

ZPKMutableDataAggregatorTransformerPtr ZPKMutableDataAggregatorTransformer::initWithTerminator(
    const ZPKDataPtr& terminator) {
  return std::make_shared<ZPKMutableDataAggregatorTransformer>(
      Key(), terminator == nullptr ? nullptr : terminator->copy());
}

ZPKMutableDataAggregatorTransformer::ZPKMutableDataAggregatorTransformer(Key, ZPKDataPtr terminator)
    : _buffer(ZPKMutableData::data()), _data2Find(std::move(terminator)), _terminator(_data2Find) {}

ZPKMutableDataAggregatorTransformer::~ZPKMutableDataAggregatorTransformer() = default;

void ZPKMutableDataAggregatorTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  const ZPKData* const terminator = currentTerminator();
  if (_buffer->length() == 0) {
    if (terminator != nullptr) cutChunk(*terminator, data);
    return;
  }
  _buffer->appendGivingUp(data);
  if (terminator == nullptr) {
    data->swap(*_buffer);
    return;
  }
  const ZPKRange found = _buffer->resumeFind(*terminator);
  if (found.location == ZPKNotFound) return;
  _buffer->moveFirst(ZPIRangeEnd(found), data);
}

// The terminator to use during one call; null if there is none.
const ZPKData* ZPKMutableDataAggregatorTransformer::currentTerminator() {
  const ZPKData* const current = _terminator.current().get();
  if (current == nullptr || current->length() == 0) return nullptr;
  return current->isMutable() ? copyOfTerminator() : current;
}

const ZPKData* ZPKMutableDataAggregatorTransformer::copyOfTerminator() {
  _terminatorCopy = _terminator.current()->copy();
  return _terminatorCopy.get();
}

// Splits a chunk while no bytes are buffered. If one unit fills the chunk, as a response usually
// does, the chunk stays unchanged.
void ZPKMutableDataAggregatorTransformer::cutChunk(const ZPKData& terminator,
                                                   ZPKMutableData* chunk) {
  const ZPKRange found = chunk->resumeFind(terminator);
  if (found.location == ZPKNotFound) {
    _buffer->appendGivingUp(chunk);
    return;
  }
  const size_t unitLength = ZPIRangeEnd(found);
  if (unitLength == chunk->length()) return;
  _buffer->swap(*chunk);
  _buffer->moveFirst(unitLength, chunk);
}

bool ZPKMutableDataAggregatorTransformer::reset(ZPKErrorPtr* /*error*/) {
  _buffer->setContents(*ZPKData::data());
  return true;
}

ZPKMutableDataPtr ZPKMutableDataAggregatorTransformer::buffer() const { return _buffer; }

ZPKDataPtr ZPKMutableDataAggregatorTransformer::data2Find() const { return _data2Find.load(); }

void ZPKMutableDataAggregatorTransformer::setData2Find(ZPKDataPtr data2Find) {
  _data2Find.store(std::move(data2Find));
}
