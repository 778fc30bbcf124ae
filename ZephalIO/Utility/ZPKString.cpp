#include "Utility/ZPKString.h"

#include <utility>

ZPKStringPtr ZPKString::init(std::string value) {
  return std::make_shared<const ZPKString>(Key(), std::move(value));
}

bool ZPKString::isEqual(const ZPKObject& other) const {
  const auto* string = dynamic_cast<const ZPKString*>(&other);
  return string != nullptr && string->_value == _value;
}
