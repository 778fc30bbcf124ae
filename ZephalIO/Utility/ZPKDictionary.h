/// @file
/// A dictionary of objects.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Utility/ZPKArray.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKObject.h"
#include "Utility/ZPKValue.h"

class ZPKDictionary;
/// An immutable dictionary, shared; may be null.
using ZPKDictionaryPtr = std::shared_ptr<const ZPKDictionary>;

/// A key and its value.
struct ZPK_EXPORT ZPKDictionaryEntry {
  /// An entry of a key, which is copied, and a value, which is shared.
  ZPKDictionaryEntry(std::string_view entryKey, const ZPKValue& entryValue)
      : key(entryKey), value(entryValue.object()) {}

  /// The key; it should be UTF-8, since other keys cannot be serialized.
  std::string key;
  /// The value; null in no entry of a dictionary.
  ZPKObjectPtr value;
};

/// A dictionary from strings to objects.
///
///     const auto message = ZPKDictionary::init({{"name", "dut-7"}, {"slot", 3}, {"ok", true}});
///     const int64_t slot = message->integer("slot").value_or(-1);
///
/// The getters never fail: they return null for a key that is missing or whose value is of a
/// different class.
class ZPK_EXPORT ZPKDictionary final : public ZPKObject {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Entries, as init takes them and as they are stored.
  using Entries = std::vector<ZPKDictionaryEntry>;

  /// A dictionary of these entries. If a key occurs more than once, its last entry counts. An entry
  /// whose value is null is left out.
  static ZPKDictionaryPtr init(std::initializer_list<ZPKDictionaryEntry> entries = {});
  /// The same, of entries that the caller has collected.
  static ZPKDictionaryPtr init(Entries entries);

  ZPKDictionary(Key, Entries entries);
  ZPKDictionary(const ZPKDictionary&) = delete;
  ZPKDictionary& operator=(const ZPKDictionary&) = delete;
  ~ZPKDictionary() override;

  /// The number of entries.
  size_t count() const;

  /// The value of a key, of any class.
  ZPKObjectPtr object(std::string_view key) const;
  /// The text of a ZPKString.
  std::optional<std::string> string(std::string_view key) const;
  /// A number of any kind, unchanged.
  std::optional<ZPKNumber> number(std::string_view key) const;
  /// A number of any kind whose value is exactly a signed 64-bit integer: 2 and 2.0, but not 2.5.
  std::optional<int64_t> integer(std::string_view key) const;
  /// Any number, converted by ZPKNumber::doubleValue.
  std::optional<double> real(std::string_view key) const;
  /// Any number, converted by ZPKNumber::boolValue.
  std::optional<bool> boolean(std::string_view key) const;
  /// Bytes; null also for a text.
  ZPKDataPtr data(std::string_view key) const;
  /// A nested dictionary.
  ZPKDictionaryPtr dictionary(std::string_view key) const;
  /// An array. The default serializer reads none, so a message that it read contains none.
  ZPKArrayPtr array(std::string_view key) const;

  /// The entries: shorter keys first, keys of equal length by their bytes.
  ///
  ///     for (const auto& [key, value] : *message) show(key, value->debugDescription());
  Entries::const_iterator begin() const;
  /// The place after the last entry.
  Entries::const_iterator end() const;

  /// Equal keys with equal values.
  bool isEqual(const ZPKObject& other) const override;
  /// As in {"ok": 1, "raw": h'0aff', "name": "dut-7"}.
  std::string debugDescription() const override;

 private:
  // In the order of begin(), without repeated keys and nulls; changed only by the destructor.
  Entries _entries;

  friend class ZPIObjectPool;
};
