#include "Data Transformers Internal/ZPIBlockDataTransformer.h"

#include "Utility/ZPKReportFailure.h"

ZPIBlockDataTransformerPtr ZPIBlockDataTransformer::initWithDataBlock(DataBlock dataBlock,
                                                                      ResetBlock andResetBlock) {
  return std::make_shared<ZPIBlockDataTransformer>(Key(), std::move(dataBlock),
                                                   std::move(andResetBlock));
}

ZPIBlockDataTransformer::ZPIBlockDataTransformer(Key, DataBlock dataBlock, ResetBlock resetBlock)
    : _dataBlock(shared(std::move(dataBlock))), _resetBlock(shared(std::move(resetBlock))) {}

void ZPIBlockDataTransformer::modifyData(ZPKMutableData* data) {
  const Shared<DataBlock> block = _dataBlock.load();
  (*block)(data);
}

bool ZPIBlockDataTransformer::reset(ZPKErrorPtr* error) {
  const Shared<ResetBlock> block = _resetBlock.load();
  if (*block == nullptr) {
    ZPKReportFailure(error, kZPICommunicationDomain, 6, {"-[ZPIBlockDataTransformer reset:]"},
                     "block transformers created without a reset block cannot be reused");
    return false;
  }
  (*block)();
  return true;
}
