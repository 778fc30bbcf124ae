#include "Utility/ZPKString.h"

#include <utility>

ZPKStringPtr ZPKString::init(std::string value) {
  return std::make_shared<const ZPKString>(Key(), std::move(value));
}

ZPKString::ZPKString(Key, std::string value) : _value(std::move(value)) {}

ZPKString::~ZPKString() = default;

const std::string& ZPKString::value() const { return _value; }

std::string ZPKString::debugDescription() const { return _value; }

bool ZPKString::isEqual(const ZPKObject& other) const {
  const auto* string = dynamic_cast<const ZPKString*>(&other);
  return string != nullptr && string->_value == _value;
}
