#include "Data Transformers Internal/ZPIDataAggregatorTransformer.h"

#include <utility>

#include "Utility/ZPIRangeEnd.h"

ZPIDataAggregatorTransformerPtr ZPIDataAggregatorTransformer::initWithTerminator(
    const ZPKDataPtr& terminator, bool removeTerminator) {
  return std::make_shared<ZPIDataAggregatorTransformer>(
      Key(), terminator == nullptr ? nullptr : terminator->copy(), removeTerminator);
}

ZPIDataAggregatorTransformer::ZPIDataAggregatorTransformer(Key, ZPKDataPtr terminator,
                                                           bool removeTerminator)
    : _removeTerminator(removeTerminator),
      _buffer(ZPKMutableData::data()),
      _data2Find(std::move(terminator)) {}

void ZPIDataAggregatorTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  _buffer->appendGivingUp(data);
  if (_data2Find == nullptr) return;
  const ZPKRange found = _buffer->resumeFind(*_data2Find);
  if (found.location == ZPKNotFound) return;
  const size_t consumed = ZPIRangeEnd(found);
  data->append(_buffer->bytes(),
               _removeTerminator ? static_cast<size_t>(found.location) : consumed);
  _buffer->dropFirst(consumed);
}

bool ZPIDataAggregatorTransformer::reset(ZPKErrorPtr* /*error*/) {
  _buffer = ZPKMutableData::data();
  return true;
}
