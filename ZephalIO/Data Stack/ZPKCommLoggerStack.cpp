#include "Data Stack/ZPKCommLoggerStack.h"

#include <utility>

#include "Data Channel/ZPIAggregatingChannel.h"
#include "Data Channel/ZPIBaseChannelForURL.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Stack/ZPIStackCall.h"
#include "Data Stack/ZPIStackChain.h"
#include "Data Stack/ZPIStackSupport.h"
#include "Utility/ZPKReportFailure.h"

namespace {

using Operation = ZPIStackChain::Operation;

ZPIStackCall callOn(ZPKDataChannel* chain, ZPKErrorPtr* error, const ZPIFailureSite& site) {
  return ZPIStackCall(kZPICommLoggerChannelDomain, chain, error, site);
}

}  // namespace

ZPKCommLoggerStackPtr ZPKCommLoggerStack::init() {
  return std::make_shared<ZPKCommLoggerStack>(Key());
}

ZPKCommLoggerStack::ZPKCommLoggerStack(Key)
    : _chain(std::make_unique<ZPIStackChain>()),
      _aggregator(
          ZPKMutableDataAggregatorTransformer::initWithTerminator(ZPKData::dataWithString(""))) {}

ZPKCommLoggerStack::~ZPKCommLoggerStack() { ZPICloseAbandonedChain(commChannel()); }

bool ZPKCommLoggerStack::setLogFilePath(std::optional<std::string_view> path,
                                        std::optional<std::string_view> preAggregatorPath,
                                        ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call =
      callOn(operation.chain(), error,
             {"-[ZPKCommLoggerStack setLogFilePath:preAggregatorLogFilePath:error:]"});
  if (call.refuseOnceCreated("Cannot enable log file while comm stack is already created/opened")) {
    return false;
  }
  setLogFilePath(ZPIStringOf(path));
  setPreAggregatorLogFilePath(ZPIStringOf(preAggregatorPath));
  return true;
}

bool ZPKCommLoggerStack::setDelimiter(std::optional<std::string_view> delimiter,
                                      ZPKErrorPtr* /*error*/) {
  const Operation operation(*_chain);
  if (const auto cutter = aggregator()) cutter->setData2Find(ZPKData::dataWithString(delimiter));
  return true;
}

bool ZPKCommLoggerStack::createStackWithURL(std::optional<std::string_view> url,
                                            ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto channel = ZPIBaseChannelForURL(ZPKURL::initWithString(url), error);
  if (!channel.has_value()) {
    ZPKReportFailure(error, kZPICommLoggerChannelDomain, 300,
                     {"-[ZPKCommLoggerStack createStackWithURL:error:]"}, "Invalid URL scheme");
  }
  // Called without a channel too: an open stack always fails with code 303.
  return createStackWithBaseChannel(channel.value_or(nullptr), error);
}

bool ZPKCommLoggerStack::createStackWithBaseChannel(const ZPKDataChannelPtr& channel,
                                                    ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  if (callOn(operation.chain(), error, {"-[ZPKCommLoggerStack createStackWithBaseChannel:error:]"})
          .refuseWhileOpen()) {
    return false;
  }
  if (channel == nullptr) return false;
  ZPKDataChannelPtr chain = chainOn(channel, error);
  if (chain == nullptr) return false;
  setCommChannel(std::move(chain));
  return true;
}

bool ZPKCommLoggerStack::open(ZPKErrorPtr* error) { return openWithTimeout(std::nullopt, error); }

bool ZPKCommLoggerStack::openWithTimeout(std::optional<ZPKNumber> timeout, ZPKErrorPtr* error) {
  const double seconds = ZPISecondsOf(timeout);
  const Operation operation(*_chain);
  return callOn(operation.chain(), error, {"-[ZPKCommLoggerStack openWithTimeout:error:]"})
      .open(seconds);
}

ZPKNumber ZPKCommLoggerStack::isOpen(ZPKErrorPtr* /*error*/) const {
  const Operation operation(*_chain);
  return ZPIIsOpened(commChannel()) ? 1 : 0;
}

bool ZPKCommLoggerStack::close(ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  return ZPICloseChain(commChannel(), error);
}

ZPKDataChannelPtr ZPKCommLoggerStack::commChannel() const { return _chain->load(); }

void ZPKCommLoggerStack::setCommChannel(ZPKDataChannelPtr channel) {
  _chain->store(std::move(channel));
}

ZPKMutableDataAggregatorTransformerPtr ZPKCommLoggerStack::aggregator() const {
  return _aggregator.load();
}

void ZPKCommLoggerStack::setAggregator(ZPKMutableDataAggregatorTransformerPtr aggregator) {
  _aggregator.store(std::move(aggregator));
}

std::optional<std::string> ZPKCommLoggerStack::logFilePath() const { return _logFilePath.load(); }

void ZPKCommLoggerStack::setLogFilePath(std::optional<std::string> path) {
  _logFilePath.store(std::move(path));
}

std::optional<std::string> ZPKCommLoggerStack::preAggregatorLogFilePath() const {
  return _preAggregatorLogFilePath.load();
}

void ZPKCommLoggerStack::setPreAggregatorLogFilePath(std::optional<std::string> path) {
  _preAggregatorLogFilePath.store(std::move(path));
}

// The active channel is on top, so that the aggregator and both logs see everything that its thread
// reads.
ZPKDataChannelPtr ZPKCommLoggerStack::chainOn(ZPKDataChannelPtr channel, ZPKErrorPtr* error) const {
  channel = ZPIWithLog(channel, preAggregatorLogFilePath(), "pre-", error);
  if (channel == nullptr) return nullptr;
  const ZPKMutableDataAggregatorTransformerPtr cutter = aggregator();
  if (cutter != nullptr) cutter->buffer()->setLength(0);
  // Does not use the factory, which rejects a null aggregator: without one, a recorder records the
  // stream without splitting it.
  channel = ZPIWithLog(ZPIAggregatingChannel(channel, cutter), logFilePath(), "post", error);
  if (channel == nullptr) return nullptr;
  return createActiveNullChannel(channel, error);
}
