// Hexadecimal and readable text, against the steps that the documentation lists.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/TextModel.h"
#include "Utility/ZPKDataConversionFunctions.h"
#include "Utility/ZPKError.h"

namespace {

std::string hexOfAll(const std::string& bytes) {
  std::string digits;
  for (const char byte : bytes) digits += hexOf(byte);
  return digits;
}

std::optional<std::string> bytesOfHex(std::string text) {
  if (text.starts_with("0x")) {
    // From the left; what only comes together by a removal stays.
    std::string kept;
    for (size_t at = 0; at < text.size(); ++at) {
      if (text.compare(at, 2, "0x") == 0) {
        ++at;
      } else {
        kept += text[at];
      }
    }
    text = kept;
  }
  if (text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return std::nullopt;
  if (text.size() % 2 == 1) text = "0" + text;
  std::string bytes;
  for (size_t at = 0; at < text.size(); at += 2) {
    bytes += static_cast<char>(std::stoul(text.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

void readHex(const std::string& text) {
  const auto expected = bytesOfHex(text);
  ZPKErrorPtr error;
  const ZPKDataPtr data = ZPKDataFromHexStringWithError(text, &error);
  require((data == nullptr) == !expected.has_value(), "only digits are accepted");
  require((error != nullptr) == (data == nullptr), "only a failure has an error");
  require(error == nullptr || error->code() == 1, "the code is 1");
  require(data == nullptr || data->view() == *expected, "the bytes are the digits'");
  const ZPKDataPtr withoutError = ZPKDataFromHexString(text);
  require(ZPKObjectsAreEqual(withoutError, data), "both functions agree");
}

void writeHex(const std::string& bytes) {
  const std::string digits = ZPKHexStringFromData(dataOf(bytes), false);
  require(digits == hexOfAll(bytes), "the digits are the bytes'");
  require(ZPKHexStringFromData(dataOf(bytes), true) == "0x" + digits, "the prefix is in front");
  readHex(digits);
  readHex("0x" + digits);
}

void show(const std::string& bytes) {
  require(ZPKDataToString(dataOf(bytes)) == readableText(bytes), "the text is readable");
  const auto text = dataOf(bytes)->string();
  require(text.has_value() == decodedUTF8(bytes).has_value(), "UTF-8 is told from other bytes");
  require(!text.has_value() || *text == bytes, "UTF-8 stays as it is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  FuzzInput input(bytes, size);
  const size_t kind = input.below(4);
  if (kind == 0) readHex(std::string(input.rest()));
  if (kind == 1)
    readHex((input.flag() ? "0x" : "") + input.textOf("0x0x0123456789abcdefABCDEF", 200));
  if (kind == 2) writeHex(std::string(input.rest()));
  if (kind == 3) show(std::string(input.rest()));
  return 0;
}
