#include "Utility/ZPKValue.h"

#include "Utility/ZPKData.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKString.h"

namespace {

// What can no longer be edited.
ZPKObjectPtr frozen(ZPKObjectPtr object) {
  if (const auto* data = dynamic_cast<const ZPKData*>(object.get())) return data->copy();
  return object;
}

}  // namespace

ZPKValue::ZPKValue(std::nullptr_t) {}

ZPKValue::ZPKValue(const char* text) {
  if (text != nullptr) _object = ZPKString::init(text);
}

ZPKValue::ZPKValue(std::string_view text) : ZPKValue(std::string(text)) {}

ZPKValue::ZPKValue(std::string text) : _object(ZPKString::init(std::move(text))) {}

ZPKValue::ZPKValue(const ZPKNumber& number) : _object(std::make_shared<const ZPKNumber>(number)) {}

ZPKValue::ZPKValue(std::initializer_list<ZPKDictionaryEntry> entries)
    : _object(ZPKDictionary::init(entries)) {}

ZPKValue::ZPKValue(AnyObject, ZPKObjectPtr object) : _object(frozen(std::move(object))) {}

const ZPKObjectPtr& ZPKValue::object() const { return _object; }

ZPKValue::operator ZPKObjectPtr() const { return _object; }
