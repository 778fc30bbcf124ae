// Which class an object is of, asked once where every class has its own way.
#pragma once

#include <cstdint>

#include "Utility/ZPKObject.h"

enum class ZPIObjectKind : uint8_t {
  Null,        // a null pointer
  Dictionary,  // ZPKDictionary
  Array,       // ZPKArray
  String,      // ZPKString
  Number,      // ZPKNumber
  Data,        // ZPKData, and what derives from it
  Other,       // a class of a caller's own
};

/// What `object`, which may be null, can be cast to.
ZPIObjectKind ZPIKindOf(const ZPKObject* object);
