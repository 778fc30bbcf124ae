#include "Data Transformers/ZPKDataTransformer.h"

#include <utility>

#include "Data Transformers Internal/ZPIBlockDataTransformer.h"
#include "Data Transformers Internal/ZPIDataAggregatorTransformer.h"
#include "Data Transformers Internal/ZPIEventGenerationTransformer.h"
#include "Data Transformers Internal/ZPIGapWatch.h"
#include "Data Transformers Internal/ZPIPacketAggregatorTransformer.h"
#include "Data Transformers Internal/ZPIPacketSizeField.h"
#include "Data Transformers Internal/ZPIPacketSizePrependTransformer.h"
#include "Data Transformers Internal/ZPIRegularExpressionTransformer.h"
#include "Utility/ZPKReportFailure.h"

namespace {

constexpr const char* kNoPattern = "pattern cannot be nil, or empty";
constexpr const char* kNoCallback = "blk cannot be nil";

constexpr int kBadArgument = 3;
constexpr int kNotCreated = 12;

ZPKDataTransformerPtr fail(ZPKErrorPtr* error, int code, const ZPIFailureSite& site,
                           const char* message) {
  ZPKReportFailure(error, kZPICommunicationDomain, code, site, message);
  return nullptr;
}

bool isNullOrEmpty(const ZPKDataPtr& data) { return data == nullptr || data->length() == 0; }

void nothingToReset() {}

void prependTo(ZPKMutableData* chunk, const ZPKData& bytes) {
  if (chunk == nullptr) return;
  const auto joined = ZPKMutableData::dataWithCapacity(bytes.length() + chunk->length());
  joined->append(bytes);
  joined->append(*chunk);
  chunk->swap(*joined);
}

}  // namespace

ZPKDataTransformer::~ZPKDataTransformer() = default;

ZPKDataTransformerPtr createPrependingTransformer(const ZPKDataPtr& prepend, ZPKErrorPtr* error) {
  if (prepend == nullptr) {
    return fail(error, kBadArgument, {"createPrependingTransformer"}, "prepend can not be nil");
  }
  return ZPIBlockDataTransformer::initWithDataBlock(
      [bytes = prepend->copy()](ZPKMutableData* chunk) { prependTo(chunk, *bytes); },
      nothingToReset);
}

ZPKDataTransformerPtr createAppendingTransformer(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  if (data == nullptr) {
    return fail(error, kBadArgument, {"createAppendingTransformer"}, "data can not be nil");
  }
  return ZPIBlockDataTransformer::initWithDataBlock(
      [bytes = data->copy()](ZPKMutableData* chunk) {
        if (chunk != nullptr) chunk->append(*bytes);
      },
      nothingToReset);
}

ZPKDataTransformerPtr createBlockTransformer(std::function<void(ZPKMutableData*)> dataBlock,
                                             std::function<void()> resetBlock, ZPKErrorPtr* error) {
  if (dataBlock == nullptr) {
    return fail(error, kBadArgument, {"createBlockTransformer"}, "dataBlock cannot be nil");
  }
  return ZPIBlockDataTransformer::initWithDataBlock(std::move(dataBlock), std::move(resetBlock));
}

ZPKDataTransformerPtr createAggregatingTransformer(const ZPKDataPtr& pattern, bool removeTerminator,
                                                   ZPKErrorPtr* error) {
  if (isNullOrEmpty(pattern)) {
    return fail(error, kBadArgument, {"createAggregatingTransformer"}, kNoPattern);
  }
  return ZPIDataAggregatorTransformer::initWithTerminator(pattern, removeTerminator);
}

ZPKDataTransformerPtr createPacketAggregatorTransformer(int32_t packetLengthEncoding,
                                                        ZPKErrorPtr* error) {
  if (packetLengthEncoding > kZPIWidestSizeField) {
    return fail(error, kNotCreated, {"createPacketAggregatorTransformer"},
                "error initializing packet aggregator transformer");
  }
  return ZPIPacketAggregatorTransformer::initWithPacketLengthEncoding(packetLengthEncoding);
}

ZPKDataTransformerPtr createPacketPrependTransformer(int32_t packetLengthEncoding,
                                                     ZPKErrorPtr* error) {
  if (packetLengthEncoding > kZPIWidestSizeField) {
    return fail(error, kNotCreated, {"createPacketPrependTransformer"},
                "error initializing packet prepend transformer");
  }
  return ZPIPacketSizePrependTransformer::initWithPacketLengthEncoding(packetLengthEncoding);
}

ZPKDataTransformerPtr createFilteringTransformer(const ZPKDataPtr& pattern, ZPKErrorPtr* error) {
  if (isNullOrEmpty(pattern)) {
    return fail(error, kBadArgument, {"createFilteringTransformer"}, kNoPattern);
  }
  return ZPIEventGenerationTransformer::initWithData(pattern, nullptr, true);
}

ZPKDataTransformerPtr createEventGeneratorTransformer(const ZPKDataPtr& pattern, bool removeData,
                                                      std::function<void()> blk,
                                                      ZPKErrorPtr* error) {
  if (isNullOrEmpty(pattern)) {
    return fail(error, kBadArgument, {"createEventGeneratorTransformer"}, kNoPattern);
  }
  if (blk == nullptr) {
    return fail(error, kBadArgument, {"createEventGeneratorTransformer"}, kNoCallback);
  }
  return ZPIEventGenerationTransformer::initWithData(pattern, std::move(blk), removeData);
}

ZPKDataTransformerPtr createTimeTransformer(double timeout, std::function<void()> blk,
                                            ZPKErrorPtr* error) {
  if (timeout <= 0.0) {
    return fail(error, kBadArgument, {"createTimeTransformer"},
                "timeout cannot be less than or equal to zero");
  }
  if (blk == nullptr) {
    return fail(error, kBadArgument, {"createTimeTransformer"}, kNoCallback);
  }
  return ZPIBlockDataTransformer::initWithDataBlock(
      [watch = std::make_shared<ZPIGapWatch>(timeout, std::move(blk))](ZPKMutableData* /*chunk*/) {
        watch->noteCall();
      },
      nothingToReset);
}

ZPKDataTransformerPtr createRegExpTransformer(std::optional<std::string_view> pattern,
                                              ZPKErrorPtr* error) {
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern(pattern, error);
  if (regex == nullptr) {
    return fail(error, kBadArgument, {"createRegExpTransformer"},
                "Invalid ZSRegularExpression pattern string");
  }
  return ZPIRegularExpressionTransformer::initWithRegularExpression(regex);
}
