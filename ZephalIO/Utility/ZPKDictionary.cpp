#include "Utility/ZPKDictionary.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Utility/ZPIObjectTree.h"
#include "Utility/ZPKString.h"

namespace {

bool isBefore(std::string_view left, std::string_view right) {
  return left.size() != right.size() ? left.size() < right.size() : left < right;
}

bool isEntryBefore(const ZPKDictionaryEntry& left, const ZPKDictionaryEntry& right) {
  return isBefore(left.key, right.key);
}

bool isInOrder(const ZPKDictionary::Entries& entries) {
  const auto isNotBefore = [](const auto& left, const auto& right) {
    return !isEntryBefore(left, right);
  };
  return std::adjacent_find(entries.begin(), entries.end(), isNotBefore) == entries.end();
}

// Keeps the last of several equal keys.
void sortAndDropRepeats(ZPKDictionary::Entries* entries) {
  std::stable_sort(entries->begin(), entries->end(), isEntryBefore);
  const auto firstKept =
      std::unique(entries->rbegin(), entries->rend(),
                  [](const auto& later, const auto& earlier) { return later.key == earlier.key; });
  entries->erase(entries->begin(), firstKept.base());
}

}  // namespace

ZPKDictionaryPtr ZPKDictionary::init(std::initializer_list<ZPKDictionaryEntry> entries) {
  return init(Entries(entries));
}

ZPKDictionaryPtr ZPKDictionary::init(Entries entries) {
  if (!isInOrder(entries)) sortAndDropRepeats(&entries);
  std::erase_if(entries, [](const ZPKDictionaryEntry& entry) { return entry.value == nullptr; });
  return std::make_shared<const ZPKDictionary>(Key(), std::move(entries));
}

ZPKDictionary::ZPKDictionary(Key, Entries entries) : _entries(std::move(entries)) {}

ZPKDictionary::~ZPKDictionary() { ZPIReleaseWithoutRecursion(std::move(_entries)); }

size_t ZPKDictionary::count() const { return _entries.size(); }

ZPKDictionary::Entries::const_iterator ZPKDictionary::begin() const { return _entries.begin(); }

ZPKDictionary::Entries::const_iterator ZPKDictionary::end() const { return _entries.end(); }

ZPKObjectPtr ZPKDictionary::object(std::string_view key) const {
  const auto found = std::lower_bound(_entries.begin(), _entries.end(), key,
                                      [](const ZPKDictionaryEntry& entry, std::string_view wanted) {
                                        return isBefore(entry.key, wanted);
                                      });
  return found == _entries.end() || found->key != key ? nullptr : found->value;
}

std::optional<std::string> ZPKDictionary::string(std::string_view key) const {
  const auto string = ZPKObjectCast<ZPKString>(object(key));
  if (string == nullptr) return std::nullopt;
  return string->value();
}

std::optional<ZPKNumber> ZPKDictionary::number(std::string_view key) const {
  const auto number = ZPKObjectCast<ZPKNumber>(object(key));
  if (number == nullptr) return std::nullopt;
  return *number;
}

std::optional<int64_t> ZPKDictionary::integer(std::string_view key) const {
  const auto number = ZPKObjectCast<ZPKNumber>(object(key));
  if (number == nullptr || *number != ZPKNumber(number->integerValue())) return std::nullopt;
  return number->integerValue();
}

std::optional<double> ZPKDictionary::real(std::string_view key) const {
  const auto number = ZPKObjectCast<ZPKNumber>(object(key));
  if (number == nullptr) return std::nullopt;
  return number->doubleValue();
}

std::optional<bool> ZPKDictionary::boolean(std::string_view key) const {
  const auto number = ZPKObjectCast<ZPKNumber>(object(key));
  if (number == nullptr) return std::nullopt;
  return number->boolValue();
}

ZPKDataPtr ZPKDictionary::data(std::string_view key) const {
  return ZPKObjectCast<ZPKData>(object(key));
}

ZPKDictionaryPtr ZPKDictionary::dictionary(std::string_view key) const {
  return ZPKObjectCast<ZPKDictionary>(object(key));
}

ZPKArrayPtr ZPKDictionary::array(std::string_view key) const {
  return ZPKObjectCast<ZPKArray>(object(key));
}

bool ZPKDictionary::isEqual(const ZPKObject& other) const {
  return ZPIObjectTreesAreEqual(*this, other);
}

std::string ZPKDictionary::debugDescription() const { return ZPIObjectTreeDescription(*this); }
