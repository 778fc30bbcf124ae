#include "ZephalConsole/Hit.h"

#include <charconv>
#include <stdexcept>
#include <string_view>

namespace zephal {
namespace {

std::string_view withoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

// Independent of the locale, unlike strtod(3).
std::optional<double> numberIn(std::string_view text) {
  const bool isNegative = takePrefix(text, "-");
  if (!isNegative) takePrefix(text, "+");
  const bool isHexadecimal = takePrefix(text, "0x") || takePrefix(text, "0X");
  if (text.empty() || text.front() == '-') return std::nullopt;
  double number = 0;
  const auto [end, failure] =
      std::from_chars(text.data(), text.data() + text.size(), number,
                      isHexadecimal ? std::chars_format::hex : std::chars_format::general);
  if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return isNegative ? -number : number;
}

}  // namespace

std::string Hit::group(size_t number) const {
  if (number >= groups.size()) {
    throw std::out_of_range("the pattern has no group " + std::to_string(number));
  }
  return groups[number].value_or(std::string());
}

double Hit::number(size_t groupNumber) const {
  const std::string text = group(groupNumber);
  const std::optional<double> result = numberIn(withoutBlanks(text));
  if (!result.has_value()) throw std::invalid_argument("not a number: \"" + text + "\"");
  return *result;
}

}  // namespace zephal
