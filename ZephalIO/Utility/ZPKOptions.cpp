#include "Utility/ZPKOptions.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

// Whether `text` is `word`, which is in lower case, in any mixture of cases. Does not ask the
// locale, which may have other letters.
bool isWord(std::string_view text, std::string_view word) {
  return std::equal(text.begin(), text.end(), word.begin(), word.end(), [](char one, char other) {
    return (one >= 'A' && one <= 'Z' ? one - 'A' + 'a' : one) == other;
  });
}

}  // namespace

ZPKOptionsPtr ZPKOptions::init() { return std::make_shared<ZPKOptions>(Key()); }

ZPKOptions::ZPKOptions(Key) {}

ZPKOptions::~ZPKOptions() = default;

std::optional<ZPKOptions::Value> ZPKOptions::get(std::string_view key) const {
  const auto found = _values.find(key);
  if (found == _values.end()) return std::nullopt;
  return found->second;
}

std::optional<ZPKNumber> ZPKOptions::number(std::string_view key) const {
  const std::optional<Value> value = get(key);
  if (!value.has_value()) return std::nullopt;
  if (const auto* text = std::get_if<std::string>(&*value)) return ZPKIntegerFromString(*text);
  return std::get<ZPKNumber>(*value);
}

std::optional<bool> ZPKOptions::boolean(std::string_view key) const {
  const std::optional<Value> value = get(key);
  if (!value.has_value()) return std::nullopt;
  const auto* text = std::get_if<std::string>(&*value);
  if (text != nullptr && (isWord(*text, "true") || isWord(*text, "yes"))) return true;
  return number(key)->boolValue();
}

std::optional<std::string> ZPKOptions::string(std::string_view key) const {
  const std::optional<Value> value = get(key);
  if (!value.has_value()) return std::nullopt;
  if (const auto* number = std::get_if<ZPKNumber>(&*value)) return number->stringValue();
  return std::get<std::string>(*value);
}

void ZPKOptions::set(std::string_view key, Value value) {
  _values.insert_or_assign(std::string(key), std::move(value));
}

void ZPKOptions::remove(std::string_view key) {
  const auto found = _values.find(key);
  if (found != _values.end()) _values.erase(found);
}

void ZPKOptions::merge(const ZPKOptionsPtr& other) {
  if (other == nullptr) return;
  for (const auto& [key, value] : other->_values) _values.insert_or_assign(key, value);
}

size_t ZPKOptions::size() const { return _values.size(); }

int64_t ZPKIntegerFromString(std::optional<std::string_view> text) {
  if (!text.has_value()) return 0;
  std::string_view rest = *text;
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t\n\v\f\r"), rest.size()));
  const bool isNegative = rest.starts_with('-');
  if (isNegative || rest.starts_with('+')) rest.remove_prefix(1);
  // Counts downwards, since the negative range is the larger one.
  constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();
  int64_t negated = 0;
  for (const char character : rest) {
    if (character < '0' || character > '9') break;
    const int digit = character - '0';
    if (negated < (kLowest + digit) / 10) {
      negated = kLowest;
      break;
    }
    negated = negated * 10 - digit;
  }
  if (isNegative) return negated;
  return negated == kLowest ? std::numeric_limits<int64_t>::max() : -negated;
}
