/// @file
/// The options of a serial port, and the number at the start of a text.
#pragma once

#include <concepts>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKTypes.h"

/// A dictionary from strings to numbers and strings, such as the options of a serial port. Do not
/// change it on one thread while another uses it; channels keep a copy.
class ZPK_EXPORT ZPKOptions {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A number or a text.
  using Value = std::variant<ZPKNumber, std::string>;

  /// An empty dictionary.
  static ZPKOptionsPtr init();

  explicit ZPKOptions(Key);
  ZPKOptions(const ZPKOptions&) = delete;
  ZPKOptions& operator=(const ZPKOptions&) = delete;
  ~ZPKOptions();

  /// The value of a key, or null.
  std::optional<Value> get(std::string_view key) const;
  /// The value as a number; a string is converted by ZPKIntegerFromString. Null for a missing key.
  std::optional<ZPKNumber> number(std::string_view key) const;
  /// The value as a bool. A number is false if it is 0. A string is true if it is "true" or "yes",
  /// in any case, or if it begins with a number that is not 0, such as "1"; anything else, "no" and
  /// "on" included, is false. Null for a missing key.
  std::optional<bool> boolean(std::string_view key) const;
  /// The value as a string; a number in decimal. Null for a missing key.
  std::optional<std::string> string(std::string_view key) const;

  /// Sets a key, or replaces its value.
  void set(std::string_view key, Value value);
  /// The same for a view, which is copied.
  void set(std::string_view key, std::same_as<std::string_view> auto text) {
    set(key, Value(std::string(text)));
  }
  /// Removes a key, if it is there.
  void remove(std::string_view key);
  /// Adds everything in `other`, whose values replace those here. Null adds nothing.
  void merge(const ZPKOptionsPtr& other);
  /// The number of keys.
  size_t size() const;

 private:
  std::map<std::string, Value, std::less<>> _values;
};

/// The decimal integer at the start of a text: leading white space is skipped, a sign is allowed,
/// and the first character that is not a digit ends it. 0 if there are no digits, or for null. A
/// number that does not fit becomes the nearer end of the type's range.
ZPK_EXPORT int64_t ZPKIntegerFromString(std::optional<std::string_view> text);
