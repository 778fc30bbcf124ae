#include "Utility/ZPKDataConversionFunctions.h"

#include "Utility/ZPKData.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKReportFailure.h"

namespace {

constexpr std::string_view kPrefix = "0x";
constexpr std::string_view kHexDigits = "0123456789ABCDEFabcdef";

// One pass from the left: an occurrence that only the removal of another brings about stays.
std::string withoutEvery(std::string_view part, std::string_view text) {
  std::string kept;
  for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part)) {
    kept += text.substr(0, at);
    text.remove_prefix(at + part.size());
  }
  return kept.append(text);
}

uint8_t digitValue(char digit) {
  if (digit <= '9') return static_cast<uint8_t>(digit - '0');
  return static_cast<uint8_t>((digit | 0x20) - 'a' + 10);
}

void appendHex(uint8_t byte, std::string& text) {
  constexpr std::string_view kLowerCaseDigits = "0123456789abcdef";
  text.push_back(kLowerCaseDigits[byte >> 4]);
  text.push_back(kLowerCaseDigits[byte & 0x0F]);
}

bool isPlain(uint8_t byte) {
  return byte == '\n' || byte == '\r' || (byte >= 0x20 && byte <= 0x7E);
}

std::string textWithHexRuns(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  bool hexRunIsOpen = false;
  for (const char character : bytes) {
    const auto byte = static_cast<uint8_t>(character);
    if (isPlain(byte)) {
      if (hexRunIsOpen) text.push_back('>');
      text.push_back(character);
      hexRunIsOpen = false;
    } else {
      if (!hexRunIsOpen) text.push_back('<');
      appendHex(byte, text);
      hexRunIsOpen = true;
    }
  }
  if (hexRunIsOpen) text.push_back('>');
  return text;
}

}  // namespace

ZPKDataPtr ZPKDataFromHexStringWithError(std::optional<std::string_view> string,
                                         ZPKErrorPtr* error) {
  std::optional<std::string> digits;
  if (string.has_value()) digits = std::string(*string);
  if (digits.has_value() && digits->starts_with(kPrefix)) digits = withoutEvery(kPrefix, *digits);
  if (!digits.has_value() || digits->find_first_not_of(kHexDigits) != std::string::npos) {
    ZPKReportFailure(error, kZPIDataConversionDomain, 1, {"ZPKDataFromHexStringWithError"},
                     "Invalid characters present in the input hex string [%@]!", digits);
    return nullptr;
  }
  if (digits->size() % 2 != 0) digits->insert(digits->begin(), '0');
  std::string bytes;
  bytes.reserve(digits->size() / 2);
  for (size_t at = 0; at < digits->size(); at += 2) {
    bytes.push_back(
        static_cast<char>(digitValue((*digits)[at]) << 4 | digitValue((*digits)[at + 1])));
  }
  return ZPKData::dataWithString(bytes);
}

ZPKDataPtr ZPKDataFromHexString(std::optional<std::string_view> string) {
  ZPKErrorPtr error;
  ZPKDataPtr data = ZPKDataFromHexStringWithError(string, &error);
  if (data == nullptr) {
    ZPKLoggingLog(ZPKLogGetAnchor(), 0,
                  "Error converting input hex string [%@] to ZSData, error = %@", string, error);
  }
  return data;
}

std::string ZPKHexStringFromData(const ZPKDataPtr& data, bool withPrefix) {
  std::string text(withPrefix ? kPrefix : std::string_view());
  if (data == nullptr) return text;
  text.reserve(text.size() + data->length() * 2);
  for (const char byte : data->view()) appendHex(static_cast<uint8_t>(byte), text);
  return text;
}

std::string ZPKDataToString(const ZPKDataPtr& data) {
  if (data == nullptr) return {};
  if (std::optional<std::string> text = data->string()) return *std::move(text);
  return textWithHexRuns(data->view());
}
