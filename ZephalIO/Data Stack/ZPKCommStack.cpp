#include "Data Stack/ZPKCommStack.h"

#include <utility>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Stack/ZPIStackCall.h"
#include "Data Stack/ZPIStackChain.h"
#include "Data Stack/ZPIStackSupport.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKDataConversionFunctions.h"
#include "Utility/ZPKReportFailure.h"

namespace {

using Operation = ZPIStackChain::Operation;

ZPIStackCall callOn(ZPKDataChannel* chain, ZPKErrorPtr* error, const ZPIFailureSite& site) {
  return ZPIStackCall(kZPICommChannelDomain, chain, error, site);
}

// Both are immutable and the same for every stack, so all stacks share them.
const ZPKDataPtr& initialDelimiter() {
  static const ZPKDataPtr delimiter = ZPKData::dataWithString("> ");
  return delimiter;
}

const ZPKDataPtr& initialLineTerminator() {
  static const ZPKDataPtr terminator = ZPKData::dataWithString("\n");
  return terminator;
}

// The number that a timeout message shows, in the form in which the caller passed it.
ZPKNumber timeoutToShow(const std::optional<ZPKNumber>& timeout) {
  return timeout.value_or(ZEPHAL_COMMUNICATION_TIME_FOREVER);
}

// A different device was found.
void reportSwap(const std::string& swap, ZPKErrorPtr* error, const ZPIFailureSite& site) {
  ZPKReportFailure(error, kZPICommChannelDomain, 309, site, "%@", swap);
}

// The response as text; null, with code 306 reported at `site`, if it is not UTF-8.
std::optional<std::string> textOf(const ZPKDataPtr& response, ZPKErrorPtr* error,
                                  const ZPIFailureSite& site) {
  if (response == nullptr) return std::nullopt;
  std::optional<std::string> text = response->string();
  if (!text.has_value()) {
    ZPKReportFailure(error, kZPICommChannelDomain, 306, site,
                     "Response returned cannot be converted to string using ZSUTF8StringEncoding");
  }
  return text;
}

// The message is the same for both kinds of filters.
constexpr const char* kFiltersRefused =
    "Cannot update read filters hex while uart stack is already created";

// One filter for each text, or nothing if one of them cannot be created.
template <class BytesOf>
std::optional<ZPKDataTransformerArray> filtersOf(const std::vector<std::string>& texts,
                                                 BytesOf bytesOf, ZPKErrorPtr* error) {
  ZPKDataTransformerArray filters;
  for (const std::string& text : texts) {
    const ZPKDataPtr bytes = bytesOf(text);
    if (bytes == nullptr) return std::nullopt;
    ZPKDataTransformerPtr filter = createFilteringTransformer(bytes, error);
    if (filter == nullptr) return std::nullopt;
    filters.push_back(std::move(filter));
  }
  return filters;
}

// Sets a different delimiter during one read and restores the old one after it.
class DelimiterSwap {
 public:
  DelimiterSwap(ZPKMutableDataAggregatorTransformerPtr aggregator, const ZPKDataPtr& delimiter)
      : _aggregator(std::move(aggregator)),
        _kept(_aggregator == nullptr ? nullptr : _aggregator->data2Find()) {
    if (_aggregator != nullptr) _aggregator->setData2Find(delimiter);
  }
  DelimiterSwap(const DelimiterSwap&) = delete;
  DelimiterSwap& operator=(const DelimiterSwap&) = delete;
  ~DelimiterSwap() {
    if (_aggregator != nullptr) _aggregator->setData2Find(_kept);
  }

 private:
  const ZPKMutableDataAggregatorTransformerPtr _aggregator;
  const ZPKDataPtr _kept;
};

// Not inlined, so that a read with the stack's own delimiter stays short.
[[gnu::noinline]] ZPKDataPtr readWithDelimiter(ZPKDataChannel& chain, double timeout,
                                               ZPKMutableDataAggregatorTransformerPtr aggregator,
                                               const ZPKDataPtr& delimiter, ZPKErrorPtr* error) {
  const DelimiterSwap swap(std::move(aggregator), delimiter);
  return chain.readWithTimeout(timeout, error);
}

}  // namespace

ZPKCommStackPtr ZPKCommStack::init() {
  auto stack = std::make_shared<ZPKCommStack>(Key());
  stack->setAggregator(ZPKMutableDataAggregatorTransformer::initWithTerminator(initialDelimiter()));
  stack->setAppender(
      ZPKMutableDataAppendingTransformer::initWithDataToAppend(initialLineTerminator()));
  // Weak, so that the detector, which the stack owns, does not keep the stack alive.
  const std::weak_ptr<ZPKCommStack> weakStack = stack;
  stack->setEcidChecker(ZPKECIDSwapDetectTransformer::initWithSwapAction(
      [weakStack](const std::string& expected, const std::string& read) {
        const ZPKCommStackPtr strongStack = weakStack.lock();
        if (strongStack == nullptr) return;
        strongStack->setEcidSwapInformation(
            ZPKLoggingFormat("Expected ECID: %@ Read ECID: %@", expected, read));
      }));
  return stack;
}

ZPKCommStack::ZPKCommStack(Key)
    : _chain(std::make_unique<ZPIStackChain>()), _currentSwap(_ecidSwapInformation) {}

ZPKCommStack::~ZPKCommStack() { ZPICloseAbandonedChain(commChannel()); }

bool ZPKCommStack::enableECIDSwapDetectionWithECID(std::optional<ZPKNumber> ecid,
                                                   ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call =
      callOn(operation.chain(), error, {"-[ZPKCommStack enableECIDSwapDetectionWithECID:error:]"});
  if (call.refuseOnceCreated(
          "Cannot enable ecid swap detection while uart stack is already created")) {
    return false;
  }
  setEcidSwapInformation(std::nullopt);
  if (const auto checker = ecidChecker()) checker->setExpectedECID(ecid);
  return true;
}

bool ZPKCommStack::setTimeoutIsException(std::optional<ZPKNumber> value, ZPKErrorPtr* /*error*/) {
  const Operation operation(*_chain);
  setTimeoutIsException(ZPIBoolOf(value));
  return true;
}

bool ZPKCommStack::setDelimiter(std::optional<std::string_view> delimiter, ZPKErrorPtr* /*error*/) {
  const Operation operation(*_chain);
  if (const auto cutter = aggregator()) cutter->setData2Find(ZPKData::dataWithString(delimiter));
  return true;
}

bool ZPKCommStack::setLineTerminator(std::optional<std::string_view> terminator,
                                     ZPKErrorPtr* /*error*/) {
  const Operation operation(*_chain);
  if (const auto ender = appender()) ender->setDataToAppend(ZPKData::dataWithString(terminator));
  return true;
}

bool ZPKCommStack::setReadFiltersHex(const std::vector<std::string>& filters, ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call = callOn(operation.chain(), error, {"-[ZPKCommStack setReadFiltersHex:error:]"});
  if (call.refuseOnceCreated(kFiltersRefused)) return false;
  std::optional<ZPKDataTransformerArray> transformers = filtersOf(
      filters, [](const std::string& text) { return ZPKDataFromHexString(text); }, error);
  if (!transformers.has_value()) return false;
  setReadFilterHexTransformers(std::move(transformers));
  return true;
}

bool ZPKCommStack::setReadFilters(const std::vector<std::string>& filters, ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call = callOn(operation.chain(), error, {"-[ZPKCommStack setReadFilters:error:]"});
  if (call.refuseOnceCreated(kFiltersRefused)) return false;
  std::optional<ZPKDataTransformerArray> transformers = filtersOf(
      filters, [](const std::string& text) { return ZPKData::dataWithString(text); }, error);
  if (!transformers.has_value()) return false;
  setReadFilterTransformers(std::move(transformers));
  return true;
}

bool ZPKCommStack::setLogFilePath(std::optional<std::string_view> path,
                                  std::optional<std::string_view> preAggregatorPath,
                                  ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call = callOn(operation.chain(), error,
                           {"-[ZPKCommStack setLogFilePath:preAggregatorLogFilePath:error:]"});
  if (call.refuseOnceCreated("Cannot enable log file while comm stack is already created/opened")) {
    return false;
  }
  setLogFilePath(ZPIStringOf(path));
  setPreAggregatorLogFilePath(ZPIStringOf(preAggregatorPath));
  return true;
}

bool ZPKCommStack::setActiveChannelOnOff(std::optional<ZPKNumber> onOff, ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call =
      callOn(operation.chain(), error, {"-[ZPKCommStack setActiveChannelOnOff:error:]"});
  if (call.refuseOnceCreated(
          "Cannot change active channel on/off when comm stack is already created/opened")) {
    return false;
  }
  setActiveChannelOnOff(ZPIBoolOf(onOff));
  return true;
}

bool ZPKCommStack::createStackWithURL(std::optional<std::string_view> url, ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(url, error);
  return channel != nullptr && createStackWithBaseChannel(channel, error);
}

bool ZPKCommStack::createStackWithBaseChannel(const ZPKDataChannelPtr& channel,
                                              ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  if (callOn(operation.chain(), error, {"-[ZPKCommStack createStackWithBaseChannel:error:]"})
          .refuseWhileOpen()) {
    return false;
  }
  if (channel == nullptr) return false;
  ZPKDataChannelPtr chain = chainOn(channel, error);
  if (chain == nullptr) return false;
  setCommChannel(std::move(chain));
  return true;
}

bool ZPKCommStack::openWithTimeout(std::optional<ZPKNumber> timeout, ZPKErrorPtr* error) {
  const double seconds = ZPISecondsOf(timeout);
  const Operation operation(*_chain);
  return callOn(operation.chain(), error, {"-[ZPKCommStack openWithTimeout:error:]"}).open(seconds);
}

ZPKNumber ZPKCommStack::isOpen(ZPKErrorPtr* /*error*/) const {
  const Operation operation(*_chain);
  return ZPIIsOpened(commChannel()) ? 1 : 0;
}

bool ZPKCommStack::close(ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  return ZPICloseChain(commChannel(), error);
}

bool ZPKCommStack::writeData(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  const Operation operation(*_chain);
  const auto call = callOn(operation.chain(), error, {"-[ZPKCommStack writeData:error:]"});
  return !call.refuseUnlessOpen() && call.chain()->write(data, error);
}

ZPKDataPtr ZPKCommStack::readDataWithTimeout(std::optional<ZPKNumber> timeout,
                                             const ZPKDataPtr& delimiter, ZPKErrorPtr* error) {
  constexpr const char* kSite = "-[ZPKCommStack readDataWithTimeout:delimiter:error:]";
  const Operation operation(*_chain);
  const auto call = callOn(operation.chain(), error, {kSite});
  const bool isRefused = call.refuseUnlessOpen();
  ZPKDataPtr data =
      isRefused ? nullptr
      : delimiter == nullptr
          ? call.chain()->readWithTimeout(ZPISecondsOf(timeout), error)
          : readWithDelimiter(*call.chain(), ZPISecondsOf(timeout), aggregator(), delimiter, error);
  if (isRefused) return data;
  if (const auto& swap = _currentSwap.current()) {
    reportSwap(*swap, error, {kSite});
    data = nullptr;
  } else if (isTimeout(data)) {
    ZPKReportFailure(error, kZPICommChannelDomain, 305, {kSite},
                     "Timed out trying to read after %@ sec", timeoutToShow(timeout));
    data = nullptr;
  }
  return data;
}

ZPKDataPtr ZPKCommStack::sendCommandData(const ZPKDataPtr& command,
                                         std::optional<ZPKNumber> timeout, ZPKErrorPtr* error) {
  constexpr const char* kSite = "-[ZPKCommStack sendCommandData:timeout:error:]";
  const Operation operation(*_chain);
  const auto call = callOn(operation.chain(), error, {kSite});
  const bool isSent = !call.refuseUnlessOpen() && call.chain()->write(command, error);
  ZPKDataPtr response =
      isSent ? call.chain()->readWithTimeout(ZPISecondsOf(timeout), error) : nullptr;
  if (!isSent) return response;
  if (const auto& swap = _currentSwap.current()) {
    reportSwap(*swap, error, {kSite});
    response = nullptr;
  } else if (isTimeout(response)) {
    ZPKReportFailure(error, kZPICommChannelDomain, 305, {kSite},
                     "Timed out waiting for response for command '%@' after %@ sec",
                     ZPKDataToString(command), timeoutToShow(timeout));
    response = nullptr;
  }
  return response;
}

bool ZPKCommStack::writeString(std::optional<std::string_view> string, ZPKErrorPtr* error) {
  return writeData(ZPKData::dataWithString(string), error);
}

std::optional<std::string> ZPKCommStack::readStringWithTimeout(
    std::optional<ZPKNumber> timeout, std::optional<std::string_view> delimiter,
    ZPKErrorPtr* error) {
  return textOf(readDataWithTimeout(timeout, ZPKData::dataWithString(delimiter), error), error,
                {"-[ZPKCommStack readStringWithTimeout:delimiter:error:]"});
}

std::optional<std::string> ZPKCommStack::sendCommandString(std::optional<std::string_view> command,
                                                           std::optional<ZPKNumber> timeout,
                                                           ZPKErrorPtr* error) {
  return textOf(sendCommandData(ZPKData::dataWithString(command), timeout, error), error,
                {"-[ZPKCommStack sendCommandString:timeout:error:]"});
}

std::optional<std::string> ZPKCommStack::sendCommandStringWithEchoRemoval(
    std::optional<std::string_view> command, std::optional<ZPKNumber> timeout, ZPKErrorPtr* error) {
  std::optional<std::string> response = sendCommandString(command, timeout, error);
  if (!response.has_value()) return std::nullopt;
  std::string echo(command.value_or(std::string_view()));
  const ZPKMutableDataAppendingTransformerPtr ender = appender();
  const ZPKDataPtr terminator = ender == nullptr ? nullptr : ender->dataToAppend();
  if (terminator != nullptr) echo += terminator->string().value_or(std::string());
  const size_t at = response->find(echo);
  if (at != std::string::npos) response->erase(at, echo.size());
  return response;
}

std::optional<std::string> ZPKCommStack::sendCommandStringWithEchoRemoval(
    std::optional<std::string_view> command, const ZPKRegexPtr& regex,
    std::optional<ZPKNumber> timeout, ZPKErrorPtr* error) {
  std::optional<std::string> response = sendCommandStringWithEchoRemoval(command, timeout, error);
  if (regex == nullptr || !response.has_value()) return response;
  const std::optional<ZPKRegexMatch> match = regex->firstMatch(*response);
  if (!match.has_value()) {
    ZPKReportFailure(error, kZPICommChannelDomain, 308,
                     {"-[ZPKCommStack sendCommandStringWithEchoRemoval:regex:timeout:error:]"},
                     "Unable to parse response\nregex:%@\nresponse:%@\n", regex->pattern(),
                     *response);
    return std::nullopt;
  }
  ZPKRange range = match->groupRange(1);
  if (range.location == ZPKNotFound) range = match->range();
  return std::string(ZPITextInRange(*response, range));
}

bool ZPKCommStack::activeChannelOnOff() const { return _activeChannelOnOff; }

void ZPKCommStack::setActiveChannelOnOff(bool onOff) { _activeChannelOnOff = onOff; }

bool ZPKCommStack::timeoutIsException() const { return _timeoutIsException; }

void ZPKCommStack::setTimeoutIsException(bool value) { _timeoutIsException = value; }

ZPKDataChannelPtr ZPKCommStack::commChannel() const { return _chain->load(); }

void ZPKCommStack::setCommChannel(ZPKDataChannelPtr channel) { _chain->store(std::move(channel)); }

ZPKMutableDataAggregatorTransformerPtr ZPKCommStack::aggregator() const {
  return _aggregator.load();
}

void ZPKCommStack::setAggregator(ZPKMutableDataAggregatorTransformerPtr aggregator) {
  _aggregator.store(std::move(aggregator));
}

ZPKMutableDataAppendingTransformerPtr ZPKCommStack::appender() const { return _appender.load(); }

void ZPKCommStack::setAppender(ZPKMutableDataAppendingTransformerPtr appender) {
  _appender.store(std::move(appender));
}

std::optional<ZPKDataTransformerArray> ZPKCommStack::readFilterTransformers() const {
  return _readFilterTransformers.load();
}

void ZPKCommStack::setReadFilterTransformers(std::optional<ZPKDataTransformerArray> transformers) {
  _readFilterTransformers.store(std::move(transformers));
}

std::optional<ZPKDataTransformerArray> ZPKCommStack::readFilterHexTransformers() const {
  return _readFilterHexTransformers.load();
}

void ZPKCommStack::setReadFilterHexTransformers(
    std::optional<ZPKDataTransformerArray> transformers) {
  _readFilterHexTransformers.store(std::move(transformers));
}

ZPKECIDSwapDetectTransformerPtr ZPKCommStack::ecidChecker() const { return _ecidChecker.load(); }

void ZPKCommStack::setEcidChecker(ZPKECIDSwapDetectTransformerPtr checker) {
  _ecidChecker.store(std::move(checker));
}

std::optional<std::string> ZPKCommStack::ecidSwapInformation() const {
  return _ecidSwapInformation.load();
}

void ZPKCommStack::setEcidSwapInformation(std::optional<std::string> information) {
  _ecidSwapInformation.store(std::move(information));
}

std::optional<std::string> ZPKCommStack::logFilePath() const { return _logFilePath.load(); }

void ZPKCommStack::setLogFilePath(std::optional<std::string> path) {
  _logFilePath.store(std::move(path));
}

std::optional<std::string> ZPKCommStack::preAggregatorLogFilePath() const {
  return _preAggregatorLogFilePath.load();
}

void ZPKCommStack::setPreAggregatorLogFilePath(std::optional<std::string> path) {
  _preAggregatorLogFilePath.store(std::move(path));
}

// Builds the chain of the current settings on `channel`; null, with the error of the factory that
// failed, if a part cannot be created.
ZPKDataChannelPtr ZPKCommStack::chainOn(ZPKDataChannelPtr channel, ZPKErrorPtr* error) const {
  channel = ZPIWithLog(channel, preAggregatorLogFilePath(), "pre-", error);
  if (channel != nullptr && activeChannelOnOff()) channel = createActiveChannel(channel, error);
  if (channel == nullptr) return nullptr;
  const ZPKMutableDataAggregatorTransformerPtr cutter = aggregator();
  if (cutter != nullptr) cutter->buffer()->setLength(0);
  channel = createAggregatingTransformerChannel(channel, cutter, error);
  if (channel == nullptr) return nullptr;
  channel = createPassiveChannel(channel, error);
  if (channel == nullptr) return nullptr;
  channel = createChannelTransformer(channel, readTransformers(), {appender()}, error);
  if (channel == nullptr) return nullptr;
  return ZPIWithLog(channel, logFilePath(), "post", error);
}

// The detector is first, so that it sees everything the device sent; then come the hex filters,
// then the others.
ZPKDataTransformerArray ZPKCommStack::readTransformers() const {
  ZPKDataTransformerArray transformers{ecidChecker()};
  for (const auto& filters : {readFilterHexTransformers(), readFilterTransformers()}) {
    if (filters.has_value()) {
      transformers.insert(transformers.end(), filters->begin(), filters->end());
    }
  }
  return transformers;
}

bool ZPKCommStack::isTimeout(const ZPKDataPtr& data) const {
  return _timeoutIsException && data != nullptr && data->length() == 0;
}
