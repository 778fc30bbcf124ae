#include "Utility/ZPKNumber.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>

namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

int64_t signedFromDouble(double value) {
  if (std::isnan(value)) return 0;
  if (value >= kTwoTo63) return std::numeric_limits<int64_t>::max();
  if (value < -kTwoTo63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

uint64_t unsignedFromDouble(double value) {
  if (std::isnan(value) || value <= -1.0) return 0;
  if (value >= kTwoTo64) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(value);
}

template <class... Form>
std::string shortest(auto value, Form... form) {
  std::array<char, 64> buffer{};
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, form...).ptr;
  return std::string(buffer.data(), end);
}

// Plain digits for every size that is easy to read, an exponent for the others.
std::string shortestReal(double value) {
  const double size = std::fabs(value);
  const bool isPlain = size == 0.0 || (size >= 1e-4 && size < 1e16);
  return shortest(value, isPlain ? std::chars_format::fixed : std::chars_format::scientific);
}

}  // namespace

double ZPKNumber::doubleValue() const {
  if (const auto* value = std::get_if<double>(&_value)) return *value;
  return std::visit([](auto value) { return static_cast<double>(value); }, _value);
}

bool ZPKNumber::boolValue() const {
  return std::visit([](auto value) { return value != decltype(value){}; }, _value);
}

int64_t ZPKNumber::integerValue() const {
  if (const auto* value = std::get_if<double>(&_value)) return signedFromDouble(*value);
  if (const auto* value = std::get_if<uint64_t>(&_value)) {
    return std::in_range<int64_t>(*value) ? static_cast<int64_t>(*value)
                                          : std::numeric_limits<int64_t>::max();
  }
  if (const auto* value = std::get_if<bool>(&_value)) return *value ? 1 : 0;
  return std::get<int64_t>(_value);
}

uint64_t ZPKNumber::unsignedIntegerValue() const {
  if (const auto* value = std::get_if<double>(&_value)) return unsignedFromDouble(*value);
  if (const auto* value = std::get_if<uint64_t>(&_value)) return *value;
  return static_cast<uint64_t>(integerValue());
}

std::string ZPKNumber::stringValue() const {
  if (const auto* value = std::get_if<double>(&_value)) return shortestReal(*value);
  if (const auto* value = std::get_if<int64_t>(&_value)) return shortest(*value);
  return shortest(unsignedIntegerValue());
}

bool ZPKNumber::isEqual(const ZPKObject& other) const {
  const auto* number = dynamic_cast<const ZPKNumber*>(&other);
  if (number == nullptr) return false;
  return *number == *this || (std::isnan(number->doubleValue()) && std::isnan(doubleValue()));
}

bool operator==(const ZPKNumber& left, const ZPKNumber& right) {
  if (!left.isDouble() && !right.isDouble()) {
    const bool leftIsNegative = left.integerValue() < 0;
    const bool rightIsNegative = right.integerValue() < 0;
    return leftIsNegative == rightIsNegative &&
           left.unsignedIntegerValue() == right.unsignedIntegerValue();
  }
  if (left.isDouble() && right.isDouble()) return left.doubleValue() == right.doubleValue();
  const ZPKNumber& real = left.isDouble() ? left : right;
  const ZPKNumber& whole = left.isDouble() ? right : left;
  const double value = real.doubleValue();
  if (std::trunc(value) != value) return false;
  if (value < 0) return value >= -kTwoTo63 && ZPKNumber(signedFromDouble(value)) == whole;
  return value < kTwoTo64 && ZPKNumber(unsignedFromDouble(value)) == whole;
}
