#include "Data Transformers/ZPKECIDSwapDetectTransformer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

namespace {

// "[", eight digits, ":", eight digits, "]". The last character is also the first of the delimiter.
constexpr size_t kECIDTextLength = 19;
constexpr size_t kDelimiterOffset = kECIDTextLength - 1;

// Both are immutable and the same for every detector, so all detectors share them.
const ZPKDataPtr& firstDelimiter() {
  static const ZPKDataPtr delimiter = ZPKData::dataWithString("] :-) ");
  return delimiter;
}

const ZPKRegexPtr& initialRegex() {
  static const ZPKRegexPtr regex = ZPKRegex::initWithPattern("\\[[0-9A-Fa-f]{8}:[0-9A-Fa-f]{8}\\]");
  return regex;
}

}  // namespace

ZPKECIDSwapDetectTransformerPtr ZPKECIDSwapDetectTransformer::initWithSwapAction(
    SwapAction swapAction) {
  return std::make_shared<ZPKECIDSwapDetectTransformer>(Key(), std::move(swapAction));
}

ZPKECIDSwapDetectTransformer::ZPKECIDSwapDetectTransformer(Key, SwapAction swapAction)
    : _swapAction(std::move(swapAction)),
      _smileyDelimiter(firstDelimiter()),
      _regex(initialRegex()),
      _expectedECIDString(std::string()),
      _expected(_expectedECIDString) {}

ZPKECIDSwapDetectTransformer::~ZPKECIDSwapDetectTransformer() = default;

void ZPKECIDSwapDetectTransformer::modifyData(ZPKMutableData* data) {
  const std::optional<std::string>& current = _expected.current();
  if (data == nullptr || !current.has_value() || current->empty()) return;
  examine(*current, data);
}

// Not inlined, so that modifyData stays short while detection is off.
[[gnu::noinline]] void ZPKECIDSwapDetectTransformer::examine(const std::string& current,
                                                             ZPKMutableData* data) {
  const std::optional<std::string_view> bytes = bytesBeforeDelimiter(*data);
  // Usually the prompt is the expected one, and its form need not be checked.
  if (!bytes.has_value() || *bytes == current || !hasECIDForm(*bytes)) return;
  const std::string expected = current;  // the action may set another one
  const std::string read(*bytes);
  if (dropResponseWhenECIDSwapDetected()) data->setLength(0);
  swapAction()(expected, read);
}

// The bytes where an ECID text belongs: up to and including the first byte of the chunk's first
// delimiter. Null if there is no delimiter, or not enough bytes in front of it.
std::optional<std::string_view> ZPKECIDSwapDetectTransformer::bytesBeforeDelimiter(
    const ZPKMutableData& chunk) const {
  const ZPKDataPtr delimiter = smileyDelimiter();
  if (delimiter == nullptr) return std::nullopt;
  const ZPKRange found = chunk.find(*delimiter);
  if (found.location == ZPKNotFound || found.location < kDelimiterOffset) return std::nullopt;
  const size_t offset = static_cast<size_t>(found.location);
  return chunk.view().substr(offset - kDelimiterOffset, kECIDTextLength);
}

// Bytes that are not UTF-8 match nothing.
bool ZPKECIDSwapDetectTransformer::hasECIDForm(std::string_view bytes) const {
  const ZPKRegexPtr form = regex();
  return form != nullptr && form->countMatches(bytes) > 0;
}

bool ZPKECIDSwapDetectTransformer::reset(ZPKErrorPtr* /*error*/) { return true; }

void ZPKECIDSwapDetectTransformer::setExpectedECID(std::optional<ZPKNumber> ecid) {
  if (!ecid.has_value()) {
    setExpectedECIDString(std::nullopt);
    return;
  }
  const uint64_t value = ecid->unsignedIntegerValue();
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "[%08llX:%08llX]",
                static_cast<unsigned long long>(value >> 32),
                static_cast<unsigned long long>(value & 0xFFFFFFFF));
  setExpectedECIDString(std::string(text.data()));
}

ZPKNumber ZPKECIDSwapDetectTransformer::expectedECID() const {
  std::string digits = expectedECIDString().value_or(std::string());
  std::erase(digits, ':');
  std::string_view rest = digits;
  rest.remove_prefix(std::min(rest.find_first_not_of('['), rest.size()));
  uint64_t value = 0;
  const auto [end, problem] = std::from_chars(rest.data(), rest.data() + rest.size(), value, 16);
  if (problem == std::errc::result_out_of_range) return UINT64_MAX;
  return value;
}

bool ZPKECIDSwapDetectTransformer::dropResponseWhenECIDSwapDetected() const {
  return _dropResponseWhenECIDSwapDetected.load(std::memory_order_relaxed);
}

void ZPKECIDSwapDetectTransformer::setDropResponseWhenECIDSwapDetected(bool drop) {
  _dropResponseWhenECIDSwapDetected.store(drop, std::memory_order_relaxed);
}

ZPKECIDSwapDetectTransformer::SwapAction ZPKECIDSwapDetectTransformer::swapAction() const {
  return _swapAction.load();
}

void ZPKECIDSwapDetectTransformer::setSwapAction(SwapAction swapAction) {
  _swapAction.store(std::move(swapAction));
}

ZPKDataPtr ZPKECIDSwapDetectTransformer::smileyDelimiter() const { return _smileyDelimiter.load(); }

void ZPKECIDSwapDetectTransformer::setSmileyDelimiter(ZPKDataPtr delimiter) {
  _smileyDelimiter.store(std::move(delimiter));
}

ZPKRegexPtr ZPKECIDSwapDetectTransformer::regex() const { return _regex.load(); }

void ZPKECIDSwapDetectTransformer::setRegex(ZPKRegexPtr regex) { _regex.store(std::move(regex)); }

std::optional<std::string> ZPKECIDSwapDetectTransformer::expectedECIDString() const {
  return _expectedECIDString.load();
}

void ZPKECIDSwapDetectTransformer::setExpectedECIDString(std::optional<std::string> text) {
  _expectedECIDString.store(std::move(text));
}
