#include "ZephalConsole/Hit.h"

#include <locale.h>
#include <stdlib.h>

#include <cerrno>
#include <cmath>
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

// Independent of the locale. Not every standard library has std::from_chars for a double: the one
// of clang 14 does not.
std::optional<double> numberIn(std::string_view text) {
  static const locale_t plainLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
  const std::string digits(withoutBlanks(text));
  // More kinds of blanks in front, which strtod(3) would skip.
  if (digits.starts_with('\v') || digits.starts_with('\f')) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double number = ::strtod_l(digits.c_str(), &end, plainLocale);
  // A number with fewer bits than usual, next to zero, is reported as out of range too.
  const bool isOutOfRange = errno == ERANGE && (number == 0 || std::isinf(number));
  if (digits.empty() || isOutOfRange || end != digits.c_str() + digits.size()) return std::nullopt;
  return number;
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
