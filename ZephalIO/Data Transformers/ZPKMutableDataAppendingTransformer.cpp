#include "Data Transformers/ZPKMutableDataAppendingTransformer.h"

#include <utility>

ZPKMutableDataAppendingTransformerPtr ZPKMutableDataAppendingTransformer::initWithDataToAppend(
    const ZPKDataPtr& dataToAppend) {
  return std::make_shared<ZPKMutableDataAppendingTransformer>(
      Key(), dataToAppend == nullptr ? nullptr : dataToAppend->copy());
}

ZPKMutableDataAppendingTransformer::ZPKMutableDataAppendingTransformer(Key, ZPKDataPtr dataToAppend)
    : _dataToAppend(std::move(dataToAppend)) {}

ZPKMutableDataAppendingTransformer::~ZPKMutableDataAppendingTransformer() = default;

void ZPKMutableDataAppendingTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  const ZPKDataPtr bytes = _dataToAppend.load();
  if (bytes != nullptr) data->append(*bytes);
}

bool ZPKMutableDataAppendingTransformer::reset(ZPKErrorPtr* /*error*/) { return true; }

ZPKDataPtr ZPKMutableDataAppendingTransformer::dataToAppend() const { return _dataToAppend.load(); }

void ZPKMutableDataAppendingTransformer::setDataToAppend(ZPKDataPtr dataToAppend) {
  _dataToAppend.store(std::move(dataToAppend));
}
