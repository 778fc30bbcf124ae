// The class of an object, for code that treats every class differently and asks only one time.
#pragma once

#include <cstdint>

#include "Utility/ZPKObject.h"

enum class ZPIObjectKind : uint8_t {
  Null,        // a null pointer
  Dictionary,  // ZPKDictionary
  Array,       // ZPKArray
  String,      // ZPKString
  Number,      // ZPKNumber
  Data,        // ZPKData, or a class that derives from it
  Other,       // a caller's own class
};

/// The kind of `object`, which may be null. It can be cast to the class of that kind.
ZPIObjectKind ZPIKindOf(const ZPKObject* object);
