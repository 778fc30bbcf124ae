#include "Models/SwapModel.h"

#include <string_view>

namespace {

bool isHex(char character) {
  constexpr std::string_view kDigits = "0123456789abcdefABCDEF";
  return kDigits.find(character) != std::string_view::npos;
}

// Whether the text is "[", eight digits, ":", eight digits, "]".
bool isIdentifier(const std::string& text) {
  constexpr std::string_view kForm = "[hhhhhhhh:hhhhhhhh]";
  for (size_t i = 0; i < kForm.size(); ++i) {
    if (kForm[i] == 'h' ? !isHex(text[i]) : text[i] != kForm[i]) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> SwapModel::swapIn(const std::string& chunk) const {
  if (expected.empty() || !delimiter.has_value() || delimiter->empty()) return std::nullopt;
  const size_t at = chunk.find(*delimiter);
  if (at == std::string::npos || at < 18) return std::nullopt;
  const std::string read = chunk.substr(at - 18, 19);
  if (!isIdentifier(read) || read == expected) return std::nullopt;
  return read;
}
