#include "Utility/ZPKArray.h"

#include <utility>

#include "Utility/ZPIObjectTree.h"

ZPKArrayPtr ZPKArray::init(std::initializer_list<ZPKValue> elements) {
  return init(Elements(elements.begin(), elements.end()));
}

ZPKArrayPtr ZPKArray::init(Elements elements) {
  return std::make_shared<const ZPKArray>(Key(), std::move(elements));
}

ZPKArray::ZPKArray(Key, Elements elements) : _elements(std::move(elements)) {}

ZPKArray::~ZPKArray() { ZPIReleaseWithoutRecursion(std::move(_elements)); }

size_t ZPKArray::count() const { return _elements.size(); }

ZPKArray::Elements::const_iterator ZPKArray::begin() const { return _elements.begin(); }

ZPKArray::Elements::const_iterator ZPKArray::end() const { return _elements.end(); }

ZPKObjectPtr ZPKArray::object(size_t index) const {
  return index < _elements.size() ? _elements[index] : nullptr;
}

bool ZPKArray::isEqual(const ZPKObject& other) const {
  return ZPIObjectTreesAreEqual(*this, other);
}

std::string ZPKArray::debugDescription() const { return ZPIObjectTreeDescription(*this); }
