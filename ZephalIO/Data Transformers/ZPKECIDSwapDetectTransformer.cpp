#include "Data Transformers/ZPKECIDSwapDetectTransformer.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

namespace {

// "[", eight digits, ":", eight digits, "]": the delimiter begins with that last character.
constexpr size_t kECIDTextLength = 19;
constexpr size_t kDelimiterOffset = kECIDTextLength - 1;

// Both are immutable and the same for every detector, so all share one.
const ZPKDataPtr& initialDelimiter() {
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
      _smileyDelimiter(initialDelimiter()),
      _regex(initialRegex()),
      _expectedECIDString(std::string()),
      _expected(_expectedECIDString) {}

void ZPKECIDSwapDetectTransformer::modifyData(ZPKMutableData* data) {
  const std::optional<std::string>& current = _expected.current();
  if (data == nullptr || !current.has_value() || current->empty()) return;
  const std::string expected = *current;
  const std::optional<std::string> read = readECIDText(*data);
  if (!read.has_value() || *read == expected) return;
  if (_dropResponseWhenECIDSwapDetected) data->setLength(0);
  swapAction()(expected, *read);
}

// The ECID text in front of the chunk's first delimiter, if there is room for one and it has the
// form of one. Bytes that are not UTF-8 have not.
std::optional<std::string> ZPKECIDSwapDetectTransformer::readECIDText(
    const ZPKMutableData& chunk) const {
  const ZPKDataPtr delimiter = smileyDelimiter();
  if (delimiter == nullptr) return std::nullopt;
  const size_t offset = chunk.find(*delimiter).location;
  if (offset == ZPKNotFound || offset < kDelimiterOffset) return std::nullopt;
  const std::optional<std::string> text =
      chunk.subdata({offset - kDelimiterOffset, kECIDTextLength})->string();
  const ZPKRegexPtr form = regex();
  if (!text.has_value() || form == nullptr || form->countMatches(*text) == 0) return std::nullopt;
  return text;
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
