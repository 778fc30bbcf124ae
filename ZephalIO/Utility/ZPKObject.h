#pragma once

#include <concepts>
#include <memory>
#include <string>

#include "Utility/ZPKExport.h"

class ZPKObject;
using ZPKObjectPtr = std::shared_ptr<const ZPKObject>;

/// The root of what a serializer carries: ZPKDictionary, ZPKString, ZPKNumber, ZPKData, ZPKArray,
/// and classes of a caller's own, for a caller's own serializer.
///
/// Objects are immutable and shared: a copy of any object, however large, is a copy of its pointer,
/// and every thread may read it. Comparing and destroying take no recursion, so nesting has no
/// limit.
class ZPK_EXPORT ZPKObject {
 public:
  virtual ~ZPKObject();

  /// Whether `other` has the same value. Numbers compare as ZPKNumber does, except that
  /// not-a-number equals itself here. A class that does not override it equals itself alone.
  virtual bool isEqual(const ZPKObject& other) const;

  /// One line for a log or a debugger.
  virtual std::string debugDescription() const;

 protected:
  ZPKObject() = default;
  // For derived classes that are plain values; a ZPKObject alone is never copied.
  ZPKObject(const ZPKObject&) = default;
  ZPKObject& operator=(const ZPKObject&) = default;
};

/// isEqual for objects that may be null: null equals null alone.
ZPK_EXPORT bool ZPKObjectsAreEqual(const ZPKObjectPtr& left, const ZPKObjectPtr& right);

/// `object` as a `T`, or null if it is of another class, or null:
///
///     if (const auto message = ZPKObjectCast<ZPKDictionary>(object)) use(message->string("name"));
template <std::derived_from<ZPKObject> T>
std::shared_ptr<const T> ZPKObjectCast(const ZPKObjectPtr& object) {
  return std::dynamic_pointer_cast<const T>(object);
}
