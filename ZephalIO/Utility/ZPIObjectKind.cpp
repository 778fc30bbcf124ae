#include "Utility/ZPIObjectKind.h"

#include <typeinfo>

#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKString.h"

namespace {

// A cast takes many times the instructions, but it also recognises classes that derive from
// ZPKData, and a class that has several type_info objects, as it can after dlopen(3).
ZPIObjectKind kindByCast(const ZPKObject& object) {
  if (dynamic_cast<const ZPKDictionary*>(&object) != nullptr) return ZPIObjectKind::Dictionary;
  if (dynamic_cast<const ZPKArray*>(&object) != nullptr) return ZPIObjectKind::Array;
  if (dynamic_cast<const ZPKString*>(&object) != nullptr) return ZPIObjectKind::String;
  if (dynamic_cast<const ZPKNumber*>(&object) != nullptr) return ZPIObjectKind::Number;
  if (dynamic_cast<const ZPKData*>(&object) != nullptr) return ZPIObjectKind::Data;
  return ZPIObjectKind::Other;
}

}  // namespace

ZPIObjectKind ZPIKindOf(const ZPKObject* object) {
  if (object == nullptr) return ZPIObjectKind::Null;
  // Compares addresses: for two different classes operator== would also compare their names.
  const std::type_info* const type = &typeid(*object);
  if (type == &typeid(ZPKNumber)) return ZPIObjectKind::Number;
  if (type == &typeid(ZPKString)) return ZPIObjectKind::String;
  if (type == &typeid(ZPKDictionary)) return ZPIObjectKind::Dictionary;
  if (type == &typeid(ZPKData) || type == &typeid(ZPKMutableData)) return ZPIObjectKind::Data;
  if (type == &typeid(ZPKArray)) return ZPIObjectKind::Array;
  return kindByCast(*object);
}
