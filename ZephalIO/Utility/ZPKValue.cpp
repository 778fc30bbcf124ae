#include "Utility/ZPKValue.h"

#include "Utility/ZPKData.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKString.h"

ZPKValue::ZPKValue(const char* text) {
  if (text != nullptr) _object = ZPKString::init(text);
}

ZPKValue::ZPKValue(std::string text) : _object(ZPKString::init(std::move(text))) {}

ZPKValue::ZPKValue(std::initializer_list<ZPKDictionaryEntry> entries)
    : _object(ZPKDictionary::init(entries)) {}

ZPKObjectPtr ZPKValue::frozen(ZPKObjectPtr object) {
  if (const auto* data = dynamic_cast<const ZPKData*>(object.get())) return data->copy();
  return object;
}
