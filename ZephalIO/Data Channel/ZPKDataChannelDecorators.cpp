#include "Data Channel/ZPKDataChannelDecorators.h"

#include <algorithm>
#include <string>

#include "Data Channel Internal/ZPIActiveChannel.h"
#include "Data Channel Internal/ZPIAggregatingTransformerChannel.h"
#include "Data Channel Internal/ZPIChannelTransformer.h"
#include "Data Channel Internal/ZPIEchoRemovalChannel.h"
#include "Data Channel Internal/ZPIInterCharacterDelayChannel.h"
#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Data Channel Internal/ZPIPassiveChannel.h"
#include "Utility/ZPKReportFailure.h"

namespace {

constexpr const char* kNullChannel = "channel cannot be nil";

// In C++ every element already has the right type; only null is left to reject.
bool isHomogenousDataTransformerArray(const ZPKDataTransformerArray& transformers) {
  return std::all_of(transformers.begin(), transformers.end(),
                     [](const ZPKDataTransformerPtr& element) { return element != nullptr; });
}

void reportBadArgument(ZPKErrorPtr* error, const ZPIFailureSite& site, const char* message) {
  ZPKReportFailure(error, kZPICommunicationDomain, 3, site, message);
}

}  // namespace

ZPKDataChannelPtr createChannelTransformer(const ZPKDataChannelPtr& channel,
                                           const ZPKDataTransformerArray& readTransformers,
                                           const ZPKDataTransformerArray& writeTransformers,
                                           ZPKErrorPtr* error) {
  return createChannelTransformer__internal(channel, readTransformers, writeTransformers, false,
                                            error);
}

ZPKDataChannelPtr createChannelTransformerWithPreCall(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, ZPKErrorPtr* error) {
  return createChannelTransformer__internal(channel, readTransformers, writeTransformers, true,
                                            error);
}

ZPKDataChannelPtr createChannelTransformer__internal(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, bool preread, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createChannelTransformer__internal"}, kNullChannel);
    return nullptr;
  }
  if (!isHomogenousDataTransformerArray(readTransformers)) {
    reportBadArgument(error, {"createChannelTransformer__internal"},
                      "Objects in readTransformers must conform to ZPKDataTransformer");
    return nullptr;
  }
  if (!isHomogenousDataTransformerArray(writeTransformers)) {
    reportBadArgument(error, {"createChannelTransformer__internal"},
                      "Objects in writeTransformers must conform to ZPKDataTransformer");
    return nullptr;
  }
  return ZPIChannelTransformer::initWithChannel(channel, readTransformers, writeTransformers,
                                                preread);
}

ZPKDataChannelPtr createActiveChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createActiveChannel"}, kNullChannel);
    return nullptr;
  }
  return ZPIActiveChannel::initWithChannel(channel, true);
}

ZPKDataChannelPtr createActiveNullChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createActiveNullChannel"}, kNullChannel);
    return nullptr;
  }
  return ZPIActiveChannel::initWithChannel(channel, false);
}

ZPKDataChannelPtr createPassiveChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createPassiveChannel"}, kNullChannel);
    return nullptr;
  }
  return ZPIPassiveChannel::initWithChannel(channel);
}

ZPKDataChannelPtr createEchoRemovalChannel(const ZPKDataChannelPtr& channel,
                                           const ZPKDataPtr& delimiter, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createEchoRemovalChannel"}, kNullChannel);
    return nullptr;
  }
  if (delimiter == nullptr || delimiter->length() == 0) {
    reportBadArgument(error, {"createEchoRemovalChannel"}, "delimiter cannot be nil, or empty");
    return nullptr;
  }
  return ZPIEchoRemovalChannel::initWithChannel(channel, delimiter);
}

ZPKDataChannelPtr createLoggingChannel(const ZPKDataChannelPtr& channel,
                                       std::optional<std::string_view> filePath,
                                       std::optional<std::string_view> identifier,
                                       bool synchronousLogging, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createLoggingChannel"}, kNullChannel);
    return nullptr;
  }
  if (!filePath.has_value()) {
    reportBadArgument(error, {"createLoggingChannel"}, "filepath cannot be nil");
    return nullptr;
  }
  if (!identifier.has_value()) {
    reportBadArgument(error, {"createLoggingChannel"}, "identifier cannot be nil");
    return nullptr;
  }
  auto logging = ZPILoggingChannel::initWithLogFilePath(std::string(*filePath),
                                                        std::string(*identifier), channel);
  logging->setSynchronousLogging(synchronousLogging);
  return logging;
}

ZPKDataChannelPtr createInterCharacterDelayChannel(const ZPKDataChannelPtr& channel,
                                                   uint32_t microSecondDelay, ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createInterCharacterDelayChannel"}, kNullChannel);
    return nullptr;
  }
  return ZPIInterCharacterDelayChannel::initWithChannel(channel, microSecondDelay);
}

ZPKDataChannelPtr createAggregatingTransformerChannel(
    const ZPKDataChannelPtr& channel, const ZPKMutableDataAggregatorTransformerPtr& transformer,
    ZPKErrorPtr* error) {
  if (channel == nullptr) {
    reportBadArgument(error, {"createAggregatingTransformerChannel"}, kNullChannel);
    return nullptr;
  }
  if (transformer == nullptr) {
    reportBadArgument(error, {"createAggregatingTransformerChannel"}, "transformer cannot be nil");
    return nullptr;
  }
  return ZPIAggregatingTransformerChannel::initWithChannel(channel, transformer);
}
