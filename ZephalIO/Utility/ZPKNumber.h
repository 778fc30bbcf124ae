/// @file
/// A number of any kind.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <type_traits>
#include <variant>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKObject.h"

/// A number of any kind: a signed or unsigned integer, a double or a bool. It converts implicitly
/// from each, so that a timeout can be written as 2, 0.5 or -1. A number that may be null is a
/// std::optional<ZPKNumber>. A plain value: copies are independent. As a ZPKObject it is shared,
/// like any other object.
// Frozen: callers' programs are compiled with its layout. See CONTRIBUTING, The binary interface.
class ZPK_EXPORT ZPKNumber final : public ZPKObject {
 public:
  /// The integer 0.
  ZPKNumber() : _value(int64_t{0}) {}
  /// A bool.
  ZPKNumber(std::same_as<bool> auto value) : _value(value) {}
  /// A signed integer.
  ZPKNumber(std::signed_integral auto value) : _value(static_cast<int64_t>(value)) {}
  /// An unsigned integer.
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) ZPKNumber(T value) : _value(static_cast<uint64_t>(value)) {}
  /// A double.
  ZPKNumber(std::floating_point auto value) : _value(static_cast<double>(value)) {}

  /// Whether the number was made from a bool.
  bool isBool() const { return std::holds_alternative<bool>(_value); }
  /// Whether the number was made from a floating-point value.
  bool isDouble() const { return std::holds_alternative<double>(_value); }
  /// Whether the number was made from an integer of either sign.
  bool isInteger() const { return !isBool() && !isDouble(); }

  /// The value as a double, rounded to the nearest if it has more digits.
  double doubleValue() const;
  /// False for 0 and 0.0, true for everything else.
  bool boolValue() const;
  /// The value as a signed integer: a fraction is truncated, a value outside the type's range
  /// becomes the nearer end of the range, and not-a-number becomes 0.
  int64_t integerValue() const;
  /// The value as an unsigned integer, truncated and limited likewise, except that a negative
  /// integer keeps its 64 bits.
  uint64_t unsignedIntegerValue() const;
  /// The same as boolValue.
  explicit operator bool() const { return boolValue(); }

  /// The value in decimal, in the shortest form that reads back as the same value: 1, 0.5, -1. Only
  /// a double of 1e16 or more, or below 1e-4, has an exponent. A bool is 1 or 0.
  std::string stringValue() const;
  /// The same as stringValue.
  std::string debugDescription() const override { return stringValue(); }

  /// Like ==, except that not-a-number equals itself. False for an object of a different class.
  bool isEqual(const ZPKObject& other) const override;

  /// Whether two numbers, of any kind, have exactly the same value: 1, 1.0 and true are equal.
  /// Not-a-number equals nothing.
  friend ZPK_EXPORT bool operator==(const ZPKNumber& left, const ZPKNumber& right);

 private:
  std::variant<int64_t, uint64_t, double, bool> _value;
};
